#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <deque>
#include <exception>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include "orvane/ring_writer.hpp"
#include "orvane/writer.hpp"
#include "ring/ring_stream.hpp"
#include "support/queue_pair.hpp"
#include "support/wire.hpp"

// A writer over each transport, with its server in the test's process. What a writer does and is
// not about queues or rings is tested over both:
//   template <typename Transport>
//   class Open : public testing::Test {};
//   TYPED_TEST_SUITE(Open, Transports, TransportName);
//
//   TYPED_TEST(Open, SendsTheOpenRecordAtOnce) {
//     TypeParam stream;
//     ...
//   }
namespace orvane::test {

struct StreamOptions {
  std::string name = "stream";
  unsigned int timeout = 7;
  unsigned int stopTimeout = 0;
  bool benchmark = false;
};

// What is in one batch at most, in both: 8 bytes, 48 of a header, and the data of kLargestRecord.
constexpr std::size_t kLargestBatch = 262128;

class QueueTransport {
 public:
  using Writer = ShmWriter;

  QueueTransport() : QueueTransport(StreamOptions()) {}
  explicit QueueTransport(const StreamOptions& options)
      : pair({.messageSize = kLargestBatch, .depth = 4}),
        writer(std::in_place, options.name, pair.name(), options.timeout, options.stopTimeout,
               options.benchmark) {}

  // A second writer on the same transport.
  std::unique_ptr<Writer> another(unsigned int timeout, unsigned int stopTimeout = 0) const {
    return std::make_unique<ShmWriter>("another", pair.name(), timeout, stopTimeout, false);
  }

  // The server receives and answers what is sent meanwhile.
  void begin() { writer->open(); }
  void close() { writer->close(); }
  void destroy() { writer.reset(); }

  // An open writer whose open record is out of the way.
  void open() {
    begin();
    discardAll();
  }

  void write(const std::string& text) {
    writer->writeSegment(reinterpret_cast<const unsigned char*>(text.data()), text.size());
  }

  // Sends what waits, and leaves the writer's counters as they are.
  void flush() { writer->flush_shm_buffer(0); }

  // The next batch. Throws when nothing was sent.
  Bytes received() { return pair.receive().bytes; }
  std::vector<Record> sent() { return recordsOf(received()); }
  std::vector<Record> flushed() {
    flush();
    return sent();
  }

  // Leaves no room for any record until something is received.
  void fill() { pair.fill(); }

  std::size_t waiting() const { return pair.waiting(); }
  void discardAll() { pair.discardAll(); }

  // An answer of the server, which the next flush finds, and how many of these wait for one.
  void post(std::int32_t status, const std::string& text) { pair.post(status, text); }
  std::size_t waitingAnswers() const { return pair.waitingAnswers(); }

 private:
  QueuePair pair;

 public:
  std::optional<ShmWriter> writer;
};

class RingTransport {
 public:
  using Writer = RingWriter;

  RingTransport() : RingTransport(StreamOptions()) {}
  explicit RingTransport(const StreamOptions& options)
      : stream({.name = options.name,
                .timeout = options.timeout,
                .stopTimeout = options.stopTimeout,
                .benchmark = options.benchmark}),
        writer(stream.writer),
        flusher("flusher", stream.lease->ring(), 7, 0, false) {
    flusher.setSegmentAlg(kOrvaneSegBounded, kFlushers, 0, 0);
  }
  ~RingTransport() { stream.server.end(); }  // so that no writer waits for its answer
  RingTransport(const RingTransport&) = delete;
  RingTransport& operator=(const RingTransport&) = delete;

  std::unique_ptr<Writer> another(unsigned int timeout, unsigned int stopTimeout = 0) const {
    return std::make_unique<RingWriter>("another", stream.lease->ring(), timeout, stopTimeout,
                                        false);
  }

  void begin() {
    const Serving server(*this);
    writer->open();
  }
  void close() {
    const Serving server(*this);
    writer->close();
  }
  void destroy() {
    const Serving server(*this);
    writer.reset();
  }

  void open() {
    begin();
    discardAll();
  }

  void write(const std::string& text) { stream.write(text); }

  // Another writer's record takes this one's with it, and is then left out.
  void flush() {
    receive();
    const std::size_t before = batches.size();
    std::exception_ptr error;
    try {
      flusher.stop(false);
    } catch (const Ox_ErrnoException&) {
      error = std::current_exception();  // the server's, after it was sent
    }
    removeFlushersRecord(before);
    if (error) {
      std::rethrow_exception(error);
    }
  }

  Bytes received() {
    receive();
    if (batches.empty()) {
      throw std::runtime_error("no batch waits in the ring");
    }
    Bytes batch = batches.front();
    batches.pop_front();
    return batch;
  }
  std::vector<Record> sent() { return recordsOf(received()); }
  std::vector<Record> flushed() {
    flush();
    return sent();
  }

  void fill() {
    {
      const Serving server(*this);
      flusher.open();
    }
    flusher.setSegmentAlg(kOrvaneSegUnbounded, kFlushers, 0, 0);
    const Bytes data(kLargestRecord);
    for (int i = 0; i < 4; ++i) {
      flusher.writeSegment(data.data(), data.size());
    }
  }

  std::size_t waiting() {
    receive();
    return batches.size();
  }
  void discardAll() {
    receive();
    batches.clear();
  }

  void post(std::int32_t status, const std::string& text) {
    receive();
    pvk_shm_response_t response;
    response.status = status;
    text.copy(response.text, sizeof response.text);
    stream.reader.answer(response);
    posted.push_back(MappedFile(stream.reader.serversFile()).get64(kAnswersWritten));
  }
  std::size_t waitingAnswers() const {
    const std::uint64_t taken = MappedFile(stream.reader.producersFile()).get64(kAnswersTaken);
    return static_cast<std::size_t>(
        std::count_if(posted.begin(), posted.end(), [&](auto number) { return number > taken; }));
  }

 private:
  static constexpr unsigned long kFlushers = 0xF1054E5;

  // The server in a separate thread, for a call that waits for it.
  class Serving {
   public:
    explicit Serving(RingTransport& transport)
        : transport(transport), thread(transport.stream.reader) {}
    ~Serving() {
      for (const Bytes& batch : thread.end()) {
        transport.batches.push_back(batch);
      }
    }
    Serving(const Serving&) = delete;
    Serving& operator=(const Serving&) = delete;

   private:
    RingTransport& transport;
    AnsweringThread thread;
  };

  // Takes the batches, and answers them with success.
  void receive() {
    for (Bytes batch = test::received(stream.reader); !batch.empty();
         batch = test::received(stream.reader)) {
      batches.push_back(batch);
      stream.reader.answer(responseOf(0));
    }
  }

  void removeFlushersRecord(std::size_t before) {
    receive();
    Bytes& last = batches.back();
    std::vector<Record> records = recordsOf(last);
    if (records.back().segParam1 != kFlushers) {
      throw std::runtime_error("the last record is not the flusher's");
    }
    last.resize(last.size() - 48);
    --last[7];  // the number of records, of which no test sends a multiple of 256
    if (records.size() == 1 && batches.size() > before + 1) {
      batches.pop_back();  // the writer's records filled the batch before
    }
  }

  RingStream stream;
  std::deque<Bytes> batches;
  std::vector<std::uint64_t> posted;  // the numbers of these answers among all

 public:
  std::optional<RingWriter>& writer;

 private:
  RingWriter flusher;
};

using Transports = testing::Types<QueueTransport, RingTransport>;

struct TransportName {
  template <typename Transport>
  static std::string GetName(int /*index*/) {
    return std::is_same_v<Transport, QueueTransport> ? "Queue" : "Ring";
  }
};

}  // namespace orvane::test
