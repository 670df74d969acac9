#pragma once

#include <fcntl.h>
#include <fuzzer/FuzzedDataProvider.h>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <thread>
#include <utility>
#include <vector>

#include "ring/raw_ring.hpp"

// One change to a file in memory, which a separate thread makes again and again.
struct Change {
  enum Kind : std::uint8_t { byte, word32, word64, hole };

  const orvane::test::MappedFile* memory;
  int file;
  std::uint64_t offset;  // a multiple of the size of what is changed
  std::uint64_t value;   // of a hole: how many bytes
  Kind kind;
  bool undone;         // at once, before the next change
  unsigned int pause;  // how long until then
};

// The other side of a ring, which changes the memory while the code under test uses it: it makes
// all changes, one after the other, until it is destroyed. It wakes whoever sleeps on the word at
// `counter`, so that no input takes long.
class Scribbler {
 public:
  // Returns when the thread runs, or, with `onceBefore`, has made every change once.
  Scribbler(std::vector<Change> list, unsigned char* counter, bool onceBefore)
      : changes(std::move(list)), counter(counter), thread([this] { run(); }) {
    while (progress < (onceBefore ? 2 : 1)) {
      std::this_thread::yield();
    }
  }
  ~Scribbler() {
    ended = true;
    thread.join();
  }
  Scribbler(const Scribbler&) = delete;
  Scribbler& operator=(const Scribbler&) = delete;

 private:
  void run() {
    progress = 1;
    do {
      for (const Change& change : changes) {
        make(change);
      }
      if (progress == 1 || ++passes % 64 == 0) {  // a call takes longer than most changes
        syscall(SYS_futex, counter, FUTEX_WAKE, 1, nullptr, nullptr, 0);
        std::this_thread::yield();
      }
      progress = 2;
    } while (!ended);
  }

  static void make(const Change& change) {
    unsigned char* const place = change.memory->at(change.offset);
    switch (change.kind) {
      case Change::byte:
        return put(place, static_cast<std::uint8_t>(change.value), change);
      case Change::word32:
        return put(reinterpret_cast<std::uint32_t*>(place),
                   static_cast<std::uint32_t>(change.value), change);
      case Change::word64:
        return put(reinterpret_cast<std::uint64_t*>(place), change.value, change);
      case Change::hole:
        // The seals do not forbid it. It fails for a file that is sealed against writing.
        fallocate(change.file, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE,
                  static_cast<off_t>(change.offset), static_cast<off_t>(change.value));
    }
  }

  template <typename T>
  static void put(T* place, T value, const Change& change) {
    const T before = __atomic_exchange_n(place, value, __ATOMIC_RELAXED);
    if (change.undone) {
      for (unsigned int i = 0; i < change.pause; ++i) {
        __builtin_ia32_pause();
      }
      __atomic_store_n(place, before, __ATOMIC_RELAXED);
    }
  }

  const std::vector<Change> changes;
  unsigned char* const counter;
  unsigned int passes = 0;
  std::atomic<int> progress = 0;
  std::atomic<bool> ended = false;
  std::thread thread;  // the last member: it uses the others
};

// A number that is near a limit of a ring, or any.
inline std::uint64_t someNumber(FuzzedDataProvider& input, std::uint64_t near) {
  using orvane::test::kRing;
  switch (input.ConsumeIntegralInRange<int>(0, 4)) {
    case 0:
      return near + input.ConsumeIntegral<std::uint8_t>() * std::uint64_t{64};
    case 1:
      return near + static_cast<std::uint64_t>(input.ConsumeIntegralInRange<std::int64_t>(-65, 65));
    case 2:
      return input.PickValueInArray({std::uint64_t{0}, ~std::uint64_t{0}, std::uint64_t{1} << 32,
                                     std::uint64_t{1} << 63, kRing, kRing / 4, kRing / 4 - 16});
    case 3:
      return near + kRing + static_cast<std::uint64_t>(input.ConsumeIntegralInRange<int>(-64, 64));
    default:
      return input.ConsumeIntegral<std::uint64_t>();
  }
}

// A change at `offset`, to a number that is somewhat like `near`.
inline Change someChange(FuzzedDataProvider& input, const orvane::test::MappedFile& memory,
                         int file, std::uint64_t offset, std::uint64_t near) {
  const auto kind = static_cast<Change::Kind>(input.ConsumeIntegralInRange<int>(0, 3));
  const std::uint64_t value = someNumber(input, near);
  const bool undone = input.ConsumeBool();
  const unsigned int pause = undone ? input.PickValueInArray({0U, 0U, 1U, 20U, 1000U}) : 0;
  switch (kind) {
    case Change::byte:
      return {&memory, file, offset, value, kind, undone, pause};
    case Change::word32:
      return {&memory, file, offset / 4 * 4, value, kind, undone, pause};
    case Change::word64:
      return {&memory, file, offset / 8 * 8, value, kind, undone, pause};
    case Change::hole:
      break;
  }
  return {&memory, file, offset, 1 + value % 8192, kind, undone, pause};
}
