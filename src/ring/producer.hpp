#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>

#include "orvane/records.hpp"
#include "records/batch_layout.hpp"
#include "ring/fork_count.hpp"
#include "ring/hand_over.hpp"
#include "ring/memory.hpp"
#include "ring/prefetch.hpp"
#include "ring/system.hpp"

namespace orvane::ring {

// The producer's end of a ring: builds frames where the server reads them, and takes the answers.
// It belongs to a lease, and several writers may use it one after another.
class Producer {
 public:
  // A frame is handed over when it has so many bytes, so that the server begins early, and what it
  // reads is still in the processor's cache.
  static constexpr std::uint64_t kUsualFrame = std::uint64_t{256} << 10;

  // The connection of the lease.
  struct Connection {
    std::function<bool()> hasEnded;  // by the server
    std::function<void()> end;
  };

  // `mine` and `servers` are the files of a ring of `bytes` bytes. Throws Ox_ErrnoException.
  Producer(const File& mine, const File& servers, std::uint64_t bytes, Connection connection);

  // A forked child does not have the ring, and may only destroy this object.
  bool isInForkedChild() const { return forkCount() != madeInFork; }

  // Another size than kUsualFrame, to find the best one by measuring; a quarter of the ring at
  // most.
  void setUsualFrame(std::uint64_t size) { usualFrame = size; }

  // The largest number of data bytes in one record.
  std::uint64_t largestRecord() const;

  // A place for a record of `len` data bytes in the frame that is being built: first 48 bytes for
  // its header, then its data. Null if there is none.
  unsigned char* placeInFrame(std::uint64_t len) const {
    prefetchAfter(frame + used, len);
    return used + layout::kHeaderSize + len <= limit ? frame + used : nullptr;
  }

  // The same in this frame or the next. Waits at most `timeout` for room, and publishes what waits
  // if the record does not fit into the frame. Returns null after the timeout. Throws kLeaseLost.
  unsigned char* place(std::uint64_t len, std::chrono::nanoseconds timeout);
  unsigned char* place(std::uint64_t len, unsigned int seconds) {
    return place(len, std::chrono::seconds(seconds));
  }

  // The record at the place is complete.
  void commit(std::uint64_t len) {
    used += layout::kHeaderSize + len;
    ++records;
  }

  // Hands the frame over to the server, if it has records.
  void publish();

  // Waits until the server has released everything. Returns false after the timeout.
  bool awaitReleased(std::chrono::nanoseconds timeout);
  bool awaitReleased(unsigned int seconds) { return awaitReleased(std::chrono::seconds(seconds)); }

  // The heads that the server will have when a full ring has room again, and when it has answered
  // one frame more. Any thread may ask whether it has come so far.
  std::uint64_t headWithRoom() const;
  std::uint64_t headAfterAnswer() const { return end.head() + 1; }
  bool isReleasedUpTo(std::uint64_t wanted) const {
    return hasReached(server.counters.head.load(std::memory_order_acquire), wanted);
  }

  // Takes all answers that are there, and forgets them.
  void discardAnswers();

  // Returns the first error among the answers since the last call, or null. The answers are taken
  // by each publish() and while this process waits: the server waits while they are not.
  const pvk_shm_response_t* takeError();

 private:
  bool awaitHead(std::uint64_t wanted, std::chrono::nanoseconds timeout);
  void beginFrame();
  bool makeRoom(std::uint64_t needed, std::chrono::nanoseconds timeout);
  void takeAnswers();
  void requireValid(bool valid) const;

  const std::uint64_t bytes;
  const Connection connection;
  const unsigned int madeInFork;
  Mapping page;
  Mapping data;
  Mapping serversPage;
  ProducerCounters<LinuxSystem::Atomic>& counters;
  const ServerPage& server;
  ProducerEnd<LinuxSystem> end;
  std::uint64_t usualFrame = kUsualFrame;
  unsigned char* frame{};   // that is being built
  std::uint64_t used{};     // its bytes
  std::uint64_t limit{};    // of its bytes, for which there is room
  std::uint32_t records{};  // in it
  std::uint64_t frames = 0;
  std::uint64_t answersTaken = 0;
  pvk_shm_response_t error;  // status 0: none
  bool hasError = false;
};

}  // namespace orvane::ring
