#pragma once

#include <atomic>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "orvane/lease.hpp"
#include "raw_ring.hpp"
#include "support/fake_server.hpp"
#include "support/wire.hpp"

namespace orvane::test {

// A writer on a lease with a ring, whose server is in the test's process.
struct RingStream {
  struct Options {
    std::uint64_t bytes = kRing;
    std::string name = "stream";
    unsigned int timeout = 7;
    unsigned int stopTimeout = 0;
    bool benchmark = false;
  };

  RingStream() : RingStream(Options()) {}
  explicit RingStream(const Options& options)
      : reader(options.bytes),
        lease(taken(options.bytes)),
        writer(std::in_place, options.name, lease->ring(), options.timeout, options.stopTimeout,
               options.benchmark) {}

  // A writer that is still open does not wait for an answer then.
  ~RingStream() { server.end(); }
  RingStream(const RingStream&) = delete;
  RingStream& operator=(const RingStream&) = delete;

  // The next batch, which is answered so; without records if there is none.
  std::vector<Record> sent(std::int32_t status = 0, const char* text = "") {
    const Bytes batch = received(reader);
    if (batch.empty()) {
      return {};
    }
    reader.answer(responseOf(status, text));
    return recordsOf(batch);
  }

  // Sends what waits, with a stop, and returns it without that.
  std::vector<Record> flushed() {
    writer->stop(false);
    std::vector<Record> records = sent();
    for (std::vector<Record> more = sent(); !more.empty(); more = sent()) {
      records.insert(records.end(), more.begin(), more.end());
    }
    records.pop_back();
    return records;
  }

  void open() {
    writer->open();
    sent();
  }

  void write(const std::string& text) {
    writer->writeSegment(reinterpret_cast<const unsigned char*>(text.data()), text.size());
  }

  RingReader reader;
  FakeServer server;
  std::unique_ptr<Lease> lease;
  std::optional<RingWriter> writer;

 private:
  std::unique_ptr<Lease> taken(std::uint64_t bytes) {
    server.serve({.says = {"ring r " + std::to_string(bytes)},
                  .files = {reader.producersFile(), reader.serversFile()}});
    auto granted = std::make_unique<Lease>(server.path(), 60, Transport::ring, bytes);
    server.awaitScript();  // so that a forked child has no thread
    return granted;
  }
};

// Answers every batch of a ring in a separate thread: as it is told, and then with success.
class AnsweringThread {
 public:
  explicit AnsweringThread(RingReader& ring, std::deque<pvk_shm_response_t> answers = {})
      : thread([this, &ring, answers = std::move(answers)]() mutable {
          for (;;) {
            const bool last = isEnding;
            const Bytes batch = received(ring);
            if (batch.empty()) {
              if (last) {
                return;
              }
              ring.wait();
              continue;
            }
            batches.push_back(batch);
            ring.answer(answers.empty() ? responseOf(0) : answers.front());
            if (!answers.empty()) {
              answers.pop_front();
            }
          }
        }) {}
  ~AnsweringThread() { end(); }
  AnsweringThread(const AnsweringThread&) = delete;
  AnsweringThread& operator=(const AnsweringThread&) = delete;

  // Ends the thread when the ring is empty, and returns all batches.
  const std::vector<Bytes>& end() {
    isEnding = true;
    if (thread.joinable()) {
      thread.join();
    }
    return batches;
  }

  std::vector<Record> records() {
    std::vector<Record> all;
    for (const Bytes& batch : end()) {
      for (Record& record : recordsOf(batch)) {
        all.push_back(std::move(record));
      }
    }
    return all;
  }

 private:
  std::atomic<bool> isEnding = false;
  std::vector<Bytes> batches;
  std::thread thread;
};

inline const char kRingNotOpen[] = "Could not write segment data because ShmWriter is not open";
inline const char kServerEnded[] = "The server ended the lease: it died or was stopped";
inline const char kNoAnswer[] =
    "Timed out after waiting 1s for an answer of orvaned on stream stream";
inline const char kNoRoom[] = "Timed out after waiting 1s to send data to orvaned on stream stream";

}  // namespace orvane::test
