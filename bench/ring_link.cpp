// A lock-free ring: Boost's single-producer queue, twice, in shared memory. One carries the numbers
// of filled slots, the other brings them back; messages are built and read in the slots themselves.
#include <sched.h>

#include <array>
#include <boost/lockfree/spsc_queue.hpp>
#include <cstdint>

#include "links.hpp"
#include "two_processes.hpp"

namespace bench {
namespace {

constexpr std::size_t kMessages = 8;
constexpr int kLooks = 1000;  // before the processor is offered to others

struct Slot {
  std::uint32_t number;
  std::uint32_t size;
};

struct Ring {
  using Slots = boost::lockfree::spsc_queue<Slot, boost::lockfree::capacity<kMessages>>;

  Slots filled;
  Slots empty;
};

class RingLink : public Link {
 public:
  explicit RingLink(std::size_t bytes) : capacity(bytes), slots(kMessages * bytes) {
    for (std::uint32_t number = 0; number < kMessages; ++number) {
      ring->empty.push({number, 0});
    }
  }

  void beSender() override { slot = next(ring->empty); }
  unsigned char* room() override { return begin(slot); }
  using Link::send;
  void send(std::size_t size) override {
    slot.size = static_cast<std::uint32_t>(size);
    ring->filled.push(slot);
    slot = next(ring->empty);
  }
  Bytes receive() override {
    if (isHeld) {
      ring->empty.push(slot);
    }
    slot = next(ring->filled);
    isHeld = true;
    return {begin(slot), slot.size};
  }

 private:
  unsigned char* begin(const Slot& one) const { return slots.data() + one.number * capacity; }

  static Slot next(Ring::Slots& from) {
    Slot found = {};
    for (int looks = 1; !from.pop(found); ++looks) {
      if (looks % kLooks == 0) {
        sched_yield();
      }
    }
    return found;
  }

  const std::size_t capacity;
  const Shared<Ring> ring;
  const SharedBytes slots;
  Slot slot = {};
  bool isHeld = false;
};

}  // namespace

std::unique_ptr<Link> makeRing(std::size_t capacity) {
  return std::make_unique<RingLink>(capacity);
}

}  // namespace bench
