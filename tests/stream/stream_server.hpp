#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include "orvane/stream.hpp"
#include "ring/raw_ring.hpp"
#include "support/fake_server.hpp"
#include "support/queue_pair.hpp"
#include "support/wire.hpp"

// A server in the test's process, which gives a stream a queue or a ring, receives when it is told
// to, and says what it is told to say. What a stream does is tested over both:
//   TYPED_TEST(StreamWrite, ...) {
//     StreamServer<TypeParam> server;
//     Stream stream(server.options());
namespace orvane::test {

constexpr unsigned int kLong = 60;  // seconds; nothing in these tests takes so long

struct QueueMemory {
  static constexpr Transport kTransport = Transport::queue;

  std::string grant() const { return "lease " + pair.name(); }
  std::vector<int> files() const { return {}; }
  bool hasBatch() const { return pair.waiting() > 0; }
  Bytes receive() { return pair.receive().bytes; }
  void answer(std::int32_t status, const std::string& text) { pair.post(status, text); }

  QueuePair pair{{.messageSize = 262128, .depth = 4}};
};

struct RingMemory {
  static constexpr Transport kTransport = Transport::ring;

  RingMemory() : reader(kRing) {}
  std::string grant() const { return "ring r " + std::to_string(kRing); }
  std::vector<int> files() const { return {reader.producersFile(), reader.serversFile()}; }
  bool hasBatch() const { return reader.waiting() > 0; }
  Bytes receive() { return received(reader); }
  void answer(std::int32_t status, const std::string& text) {
    reader.answer(responseOf(status, text.c_str()));
  }

  RingReader reader;
};

template <typename Memory>
class StreamServer {
 public:
  ~StreamServer() { server.end(); }

  // What a stream needs to get its lease here.
  StreamOptions options(unsigned int timeout = kLong) {
    server.serve({.says = {memory.grant()}, .files = memory.files()});
    StreamOptions options;
    options.socket = server.path();
    options.timeout = timeout;
    options.transport = Memory::kTransport;
    options.ringBytes = kRing;
    return options;
  }

  // Receives all batches that wait, and answers them with success; returns their records.
  std::vector<Record> receive() {
    std::vector<Record> records;
    while (memory.hasBatch()) {
      for (Record& record : recordsOf(memory.receive())) {
        records.push_back(std::move(record));
      }
      memory.answer(0, "");
    }
    return records;
  }

  // Receives the next batch, and answers it with an error.
  void refuse(std::int32_t status, const std::string& text) {
    memory.receive();
    memory.answer(status, text);
  }

  bool hasBatch() const { return memory.hasBatch(); }
  void say(const std::string& packet) { server.say(packet); }
  void end() { server.end(); }
  const std::string& request() { return server.request(); }
  void awaitStart() { server.awaitScript(); }

 private:
  Memory memory;
  FakeServer server;
};

// The receipt of a closed stream.
inline std::string receiptOf(std::uint64_t records, std::uint64_t bytes, std::uint64_t segments,
                             const std::string& end = "closed") {
  return "receipt stream=x records=" + std::to_string(records) + " bytes=" + std::to_string(bytes) +
         " segments=" + std::to_string(segments) + " end=" + end;
}

// The data of all records of segment data.
inline std::string dataOf(const std::vector<Record>& records) {
  std::string data;
  for (const Record& record : records) {
    data.append(record.data.begin(), record.data.end());
  }
  return data;
}

// What `call` throws; without it, the test fails.
template <typename Call>
std::optional<StreamError> errorOf(const Call& call) {
  try {
    call();
  } catch (const StreamError& e) {
    return e;
  }
  return std::nullopt;
}

// Success when `call` throws exactly this.
template <typename Call>
testing::AssertionResult fails(ox_status_t status, const std::string& message, Certainty certainty,
                               const Call& call) {
  const std::optional<StreamError> error = errorOf(call);
  if (!error) {
    return testing::AssertionFailure() << "it does not fail";
  }
  if (error->status() == status && error->message() == message && error->certainty() == certainty) {
    return testing::AssertionSuccess();
  }
  return testing::AssertionFailure() << "status " << error->status() << ", \"" << error->message()
                                     << "\", certainty " << static_cast<int>(error->certainty());
}

// A text of this many bytes, no part of which is like another.
inline std::string content(std::size_t size) {
  std::string text(size, '\0');
  std::uint32_t state = 1;
  for (char& c : text) {
    state = state * 1664525 + 1013904223;
    c = static_cast<char>(state >> 24);
  }
  return text;
}

// Writes until there is no room, not even for a byte; returns what was taken.
inline std::string fill(Stream& stream) {
  std::string taken;
  for (const std::size_t size : {100000U, 1U}) {
    for (const std::string data = content(size); stream.tryWrite(data.data(), size) > 0;) {
      taken += data;
    }
  }
  return taken;
}

using Memories = testing::Types<QueueMemory, RingMemory>;

struct MemoryName {
  template <typename Memory>
  static std::string GetName(int /*index*/) {
    return std::is_same_v<Memory, QueueMemory> ? "Queue" : "Ring";
  }
};

inline const char kNoRoom[] =
    "Timed out after waiting 1s for room: the server is busy or was stopped";
inline const char kNoReceipt[] =
    "Timed out after waiting 1s for the receipt: the server is busy or was stopped; call finish() "
    "again to wait longer";
inline const char kEndedWithoutReason[] =
    "The server ended the lease without a reason: it died or was stopped";

}  // namespace orvane::test
