#pragma once

#include <algorithm>
#include <cstdint>

#include "ring/layout.hpp"

// How frames change hands. Each side has counters that it alone writes, and reads those of the
// other side, which it does not trust. A side that has nothing to do sleeps on the other side's
// counter (a futex), and the other side wakes it.
//
//   the side that moves a counter           the side that waits for it
//     counter = new value                     nap = odd
//     fence                                   fence
//     if nap is odd: wake                     if counter is unchanged: sleep while it is
//                                             nap = even
//
// Both fences are needed, on x86 as well: each side stores and then loads. Without one of them,
// both sides may read old values, and the sleeper is woken by nobody.
//
// `System` has Atomic, fence(), wait(), wake(), pause() and now(); system.hpp has the real one, and
// a model checker another.
namespace orvane::ring {

constexpr std::int64_t kLookFor = 50'000;          // ns that a side looks before it sleeps
constexpr std::int64_t kLongestNap = 100'000'000;  // ns: then the caller looks for the peer's death

// Wakes a sleeper once for each nap. That a nap was ended may be remembered only if a sleeper was
// really woken: a side that has set its nap may not have fallen asleep yet.
template <typename System>
class Waker {
 public:
  template <typename Word>
  void wake(std::uint32_t nap, const Word& counter) {
    if (nap != ended && System::wake(counter)) {
      ended = nap;
    }
  }

 private:
  std::uint32_t ended = 0;  // even: no nap
};

// How long a side looks before it sleeps. To look is in vain while the other side rests, or has no
// processor because more processes run than there are. Each time that it was in vain, the side
// sleeps at once in twice as many of the next waits.
class Patience {
 public:
  // In this wait, in nanoseconds.
  std::int64_t lookFor() const { return left > 0 ? 0 : kLookFor; }

  void succeeded() { left = skipped = 0; }
  void failed() {
    if (left > 0) {
      --left;
    } else {
      left = skipped = std::min(2 * skipped + 1, kMostSkipped);
    }
  }

 private:
  static constexpr unsigned int kMostSkipped = 15;

  unsigned int skipped = 0;  // waits without a look since the last one that was in vain
  unsigned int left = 0;     // of them
};

// Looks until `isReached()`, as long as `patience` says, then sleeps while `counter` is `seen`, at
// most once. Each `look()` reads the counter into `seen`. Returns false if the last one found that
// the other side broke the rules.
template <typename System, typename Nap, typename Word, typename Look, typename Reached>
bool awaitOther(Nap& nap, const Word& counter, const std::uint64_t& seen, const Look& look,
                const Reached& isReached, Patience& patience) {
  const std::int64_t sleepAt = System::now() + patience.lookFor();
  do {
    if (!look()) {
      return false;
    }
    if (isReached()) {
      patience.succeeded();
      return true;
    }
    System::pause();
  } while (System::now() < sleepAt);
  patience.failed();
  const std::uint32_t naps = nap.load(System::kRelaxed);
  nap.store(naps + 1, System::kRelease);  // a side that sees this nap also sees its `want`
  System::fence();
  if (look() && !isReached()) {
    System::wait(counter, seen, kLongestNap);
  }
  nap.store(naps + 2, System::kRelaxed);
  return look();
}

constexpr bool isAsleep(std::uint32_t nap) {
  return nap % 2 == 1;
}

// Counters only grow, and may overflow.
constexpr bool hasReached(std::uint64_t counter, std::uint64_t wanted) {
  return static_cast<std::int64_t>(counter - wanted) >= 0;
}

// The producer's end: moves the tail, and waits for the head.
template <typename System>
class ProducerEnd {
 public:
  using Mine = ProducerCounters<System::template Atomic>;
  using Other = ServerCounters<System::template Atomic>;

  ProducerEnd(Mine& mine, const Other& other, std::uint64_t bytes)
      : mine(mine), other(other), bytes(bytes) {}

  // The bytes that may be written behind the tail, as far as is known.
  std::uint64_t room() const { return bytes - (position - released); }
  std::uint64_t tail() const { return position; }
  std::uint64_t head() const { return released; }

  // Hands everything before `newTail` over.
  void publish(std::uint64_t newTail) {
    position = newTail;
    mine.tail.store(newTail, System::kRelease);
    System::fence();
    const std::uint32_t nap = other.nap.load(System::kRelaxed);
    if (isAsleep(nap)) {
      waker.wake(nap, mine.tail);
    }
  }

  // Returns false if the server broke the rules: its head went back, or beyond the tail.
  bool look() {
    const std::uint64_t head = other.head.load(System::kAcquire);
    if (head - released > position - released) {
      return false;
    }
    released = head;
    return true;
  }

  // Waits for a head of `wanted` or more, for a moment; at most one nap. Returns false only if the
  // server broke the rules.
  bool await(std::uint64_t wanted) {
    mine.want.store(wanted, System::kRelaxed);
    return awaitOther<System>(
        mine.nap, other.head, released, [&] { return look(); },
        [&] { return hasReached(released, wanted); }, patience);
  }

 private:
  Mine& mine;
  const Other& other;
  const std::uint64_t bytes;
  std::uint64_t position = 0;
  std::uint64_t released = 0;  // the head as last seen
  Patience patience;
  Waker<System> waker;
};

// The server's end: waits for the tail, and moves the head.
template <typename System>
class ServerEnd {
 public:
  using Mine = ServerCounters<System::template Atomic>;
  using Other = ProducerCounters<System::template Atomic>;

  ServerEnd(Mine& mine, const Other& other, std::uint64_t bytes)
      : mine(mine), other(other), bytes(bytes) {}

  // The bytes behind the head that the producer has handed over, as far as is known.
  std::uint64_t filled() const { return published - position; }
  std::uint64_t head() const { return position; }

  // Returns false if the producer broke the rules: its tail went back, or is further ahead than the
  // ring is large.
  bool look() {
    const std::uint64_t tail = other.tail.load(System::kAcquire);
    if (tail - published > bytes - (published - position)) {
      return false;
    }
    published = tail;
    return true;
  }

  // Gives everything before `newHead` back. A sleeping producer is woken only when enough is free.
  void release(std::uint64_t newHead) {
    position = newHead;
    mine.head.store(newHead, System::kRelease);
    System::fence();
    const std::uint32_t nap = other.nap.load(System::kAcquire);
    if (isAsleep(nap) && hasReached(newHead, other.want.load(System::kRelaxed))) {
      waker.wake(nap, mine.head);
    }
  }

  // Waits for a frame, for a moment; at most one nap. Returns false only if the producer broke the
  // rules.
  bool await() {
    return awaitOther<System>(
        mine.nap, other.tail, published, [&] { return look(); }, [&] { return filled() > 0; },
        patience);
  }

 private:
  Mine& mine;
  const Other& other;
  const std::uint64_t bytes;
  std::uint64_t position = 0;
  std::uint64_t published = 0;  // the tail as last seen
  Patience patience;
  Waker<System> waker;
};

}  // namespace orvane::ring
