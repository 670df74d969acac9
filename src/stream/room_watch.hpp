#pragma once

#include <cstdint>
#include <thread>

#include "ring/memory.hpp"
#include "ring/producer.hpp"

namespace orvane {

// A descriptor for event loops: readable when a lease's connection is, and when a full ring has
// room again. Only a thread can look for the latter; it runs as long as there is no room.
class RoomWatch {
 public:
  // `producer` is null for a lease with a queue.
  RoomWatch(int connection, const ring::Producer* producer);
  ~RoomWatch();
  RoomWatch(const RoomWatch&) = delete;
  RoomWatch& operator=(const RoomWatch&) = delete;

  int fd() const { return both.get(); }

  // From now on the descriptor is readable when the server has released everything up to `wanted`.
  // Without a ring it has no effect.
  void begin(std::uint64_t wanted);

  // Nobody waits for room any more.
  void end();

  // In a forked child, where the thread is not.
  void forget();

 private:
  void endThread();
  void look(std::uint64_t wanted) const;

  const ring::Producer* const producer;
  const ring::File both;   // epoll of the connection and of `room`
  const ring::File room;   // readable when there is room
  const ring::File ended;  // readable when the thread has to end
  std::thread thread;
  bool hasBegun = false;
};

}  // namespace orvane
