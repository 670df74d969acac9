// Runs the real hand-over (src/ring/hand_over.hpp) under Relacy, a simulator of the C++ memory
// model: it chooses which thread goes on, and which of the values that it may see a load returns.
//
//   hand_over              all of this
//   hand_over NAME         one case, with the history of its first failure
//
// A run without a defect must succeed each time. Then the same code runs with one defect at a time,
// and each defect must be found: a check that finds none of them would prove nothing.
//
// A nap has no time limit here as long as both sides live, so a wake-up that is lost, and that only
// the limit would mend, is a deadlock. After a death the limit always ends the nap.
//
// Left out: what a hostile side writes, answers, processes and mappings, counters that overflow,
// and signals that end a nap early.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <iostream>
#include <string>

// Before Relacy's header, which makes macros of `delete` and `$`.
#include "ring/hand_over.hpp"

#include <relacy/relacy.hpp>

namespace {

constexpr std::uint64_t kLine = orvane::ring::kLine;
constexpr std::uint64_t kSlots = 4;
constexpr std::uint64_t kRing = kSlots * kLine;
constexpr std::uint64_t kAtOnce = 2;  // lines that a producer waits for when the ring is full
constexpr unsigned int kFrames = 7;
constexpr unsigned int kOperations = 120;  // a side that dies does so within so many

constexpr rl::iteration_t kExecutions = 100'000;
constexpr rl::iteration_t kMost = 1'000'000;  // until a defect is found

enum Side { producer, server };

enum class Defect {
  none,
  publishWithoutFence,
  releaseWithoutFence,
  producerSleepsWithoutFence,
  serverSleepsWithoutFence,
  publishRelaxed,
  releaseRelaxed,
  tailReadRelaxed,
  headReadRelaxed,
  napWithoutLimit,
  wokenWithoutSleeper,
  wantComparedTheWrongWay,
};

struct Case {
  const char* name;
  Defect defect;
};

constexpr Case kCases[] = {
    {"no defect", Defect::none},
    {"publish without fence", Defect::publishWithoutFence},
    {"release without fence", Defect::releaseWithoutFence},
    {"producer sleeps without fence", Defect::producerSleepsWithoutFence},
    {"server sleeps without fence", Defect::serverSleepsWithoutFence},
    {"publish with relaxed order", Defect::publishRelaxed},
    {"release with relaxed order", Defect::releaseRelaxed},
    {"tail read with relaxed order", Defect::tailReadRelaxed},
    {"head read with relaxed order", Defect::headReadRelaxed},
    {"death not seen: a nap without limit", Defect::napWithoutLimit},
    {"\"woken\" remembered without a sleeper", Defect::wokenWithoutSleeper},
    {"want compared the wrong way", Defect::wantComparedTheWrongWay},
};

Defect defect = Defect::none;

struct Died {};

// What one execution has beside the ring. Relacy runs both sides on one thread of the system, so
// plain memory will do.
struct Execution {
  bool dead[2] = {};
  unsigned int operationsLeft[2] = {};  // before the side dies; 0: it does not die
  bool awaits[2] = {};
  std::uint64_t released = 0;          // the head that the server stores
  std::uint64_t wanted = 0;            // the head for which the producer waits
  std::uint64_t producersNap = 0;      // as the producer stored it
  std::uint64_t producersNapSeen = 0;  // as the server loaded it
  std::int64_t clock = 0;
};
Execution execution;

Side self() {
  return rl::thread_index() == 0 ? producer : server;
}
Side other() {
  return self() == producer ? server : producer;
}

// Each operation of a side may be its last.
void live() {
  unsigned int& left = execution.operationsLeft[self()];
  if (left > 0 && --left == 0) {
    throw Died();
  }
}

// A word of a page. `calls` stands for the order of all futex calls on the word: a call sees what
// happened before an earlier call. Linux promises no more, so a futex call is no fence.
template <typename T>
class Word {
 public:
  Word(T value) : value(value), calls(0) {}

  T load(rl::memory_order order) const {
    live();
    const T loaded = value.load(order, $);
    if (sizeof(T) == 4 && self() == server) {
      execution.producersNapSeen = loaded;
    }
    // Of all numbers of 64 bits, the server loads only `want` with relaxed order.
    const bool isWant = sizeof(T) == 8 && self() == server && order == rl::mo_relaxed;
    return isWant && defect == Defect::wantComparedTheWrongWay
               ? static_cast<T>(2 * execution.released - loaded)
               : loaded;
  }

  void store(T stored, rl::memory_order order) {
    live();
    if (sizeof(T) == 4 && self() == producer) {
      execution.producersNap = stored;
    }
    value.store(stored, order, $);
  }

  T last() const { return value.debug_value(); }

  void sleepWhile(T seen, bool limited) const {
    rl::context& context = rl::ctx();
    context.sched();
    {
      const rl::preemption_disabler atomically(context);
      calls.fetch_add(1, rl::mo_acq_rel, $);
      if (value.load(rl::mo_relaxed, $) != seen || (limited && execution.dead[other()])) {
        return;
      }
    }
    value.wait(context, false, false, $);
  }

  bool wakeOne() const {
    rl::context& context = rl::ctx();
    context.sched();
    const rl::preemption_disabler atomically(context);
    calls.fetch_add(1, rl::mo_acq_rel, $);
    return value.wake(context, 1, $) == 1;
  }

 private:
  mutable rl::atomic<T> value;
  mutable rl::atomic<unsigned int> calls;
};

// The System of the hand-over, with the defects.
struct SimulatedSystem {
  template <typename T>
  using Atomic = Word<T>;

  // An order, and the defects by which one of the sides uses the relaxed one in its place.
  struct Order {
    rl::memory_order order;
    Defect ofProducer;
    Defect ofServer;

    operator rl::memory_order() const {
      const Defect relaxed = self() == producer ? ofProducer : ofServer;
      return defect != Defect::none && defect == relaxed ? rl::mo_relaxed : order;
    }
  };
  static constexpr Order kRelaxed = {rl::mo_relaxed, Defect::none, Defect::none};
  static constexpr Order kAcquire = {rl::mo_acquire, Defect::headReadRelaxed,
                                     Defect::tailReadRelaxed};
  static constexpr Order kRelease = {rl::mo_release, Defect::publishRelaxed,
                                     Defect::releaseRelaxed};

  static void fence() {
    live();
    static constexpr Defect kWithout[2][2] = {
        {Defect::publishWithoutFence, Defect::producerSleepsWithoutFence},
        {Defect::releaseWithoutFence, Defect::serverSleepsWithoutFence}};
    if (defect != kWithout[self()][execution.awaits[self()] ? 1 : 0]) {
      rl::atomic_thread_fence(rl::mo_seq_cst, $);
    }
  }

  static void pause() {}

  // Two calls are further apart than a side looks before it sleeps.
  static std::int64_t now() { return execution.clock += 2 * orvane::ring::kLookFor; }

  static void wait(const Word<std::uint64_t>& counter, std::uint64_t seen,
                   std::int64_t nanoseconds) {
    live();
    const bool limited = nanoseconds > 0 && nanoseconds <= 100'000'000;
    counter.sleepWhile(seen, limited && defect != Defect::napWithoutLimit);
  }

  static bool wake(const Word<std::uint64_t>& counter) {
    live();
    const bool woke = counter.wakeOne();
    if (woke && self() == server && execution.released < execution.wanted) {
      // A server that was slow may end the nap after the one that it meant.
      RL_ASSERT(execution.producersNapSeen != execution.producersNap);
    }
    return woke || defect == Defect::wokenWithoutSleeper;
  }
};

// A producer sends frames through a ring, as ring/producer.cpp does, and a server takes
// them, as ring_reader.hpp shows. A frame's data is its number. In every second execution one side
// dies, or both do.
class HandOver : public rl::test_suite<HandOver, 2> {
 public:
  HandOver() : producers(), servers(), deaths(0) {}

  void before() {
    execution = Execution();
    for (unsigned int& left : execution.operationsLeft) {
      left = rl::rand(4) == 0 ? 1 + rl::rand(kOperations) : 0;
    }
  }

  void thread(unsigned int index) {
    bool died = false;
    try {
      index == 0 ? produce() : serve();
    } catch (const Died&) {
      died = true;
    }
    if (died) {
      end(static_cast<Side>(index));
    }
  }

  // What was handed over is taken, unless the server died.
  void after() {
    RL_ASSERT(execution.dead[server] || takenBytes == producers.tail.last());
    RL_ASSERT(execution.dead[server] || execution.dead[producer] || taken == kFrames);
  }

 private:
  using Producer = orvane::ring::ProducerEnd<SimulatedSystem>;
  using Server = orvane::ring::ServerEnd<SimulatedSystem>;

  // Of different sizes, so that the head can pass what the producer waits for.
  static std::uint64_t sizeOf(unsigned int frame) { return (1 + frame % 2) * kLine; }
  rl::var<unsigned int>& slotAt(std::uint64_t position) { return slots[position / kLine % kSlots]; }

  void produce() {
    Producer end(producers, servers, kRing);
    for (unsigned int frame = 1; frame <= kFrames; ++frame) {
      const std::uint64_t size = sizeOf(frame);
      RL_ASSERT(end.look());
      if (end.room() < size && !awaitHead(end, end.tail() + kAtOnce * kLine - kRing)) {
        return;
      }
      for (std::uint64_t line = end.tail(); line < end.tail() + size; line += kLine) {
        slotAt(line)($) = frame;
      }
      end.publish(end.tail() + size);
    }
    awaitHead(end, end.tail());
  }

  // Returns false if the server is dead.
  bool awaitHead(Producer& end, std::uint64_t wanted) {
    execution.wanted = wanted;
    RL_ASSERT(end.look());
    while (!orvane::ring::hasReached(end.head(), wanted)) {
      if (isDead(server)) {
        return false;
      }
      execution.awaits[producer] = true;
      RL_ASSERT(end.await(wanted));
      execution.awaits[producer] = false;
    }
    return true;
  }

  void serve() {
    Server end(servers, producers, kRing);
    while (taken < kFrames) {
      const bool wasDead = isDead(producer);
      RL_ASSERT(end.look());
      if (end.filled() > 0) {
        take(end);
      } else if (wasDead) {
        return;
      } else {
        execution.awaits[server] = true;
        RL_ASSERT(end.await());
        execution.awaits[server] = false;
      }
    }
  }

  void take(Server& end) {
    const std::uint64_t size = sizeOf(++taken);
    RL_ASSERT(size <= end.filled() && end.filled() <= kRing);
    for (std::uint64_t line = end.head(); line < end.head() + size; line += kLine) {
      RL_ASSERT(slotAt(line)($) == taken);
    }
    takenBytes += size;
    execution.released = end.head() + size;
    end.release(execution.released);
  }

  // The kernel closes the connection of a side that dies, after all that it did. The other side
  // looks for that after a nap, which the limit ends.
  void end(Side side) {
    deaths.fetch_add(1, rl::mo_acq_rel, $);
    execution.dead[side] = true;
    side == producer ? producers.tail.wakeOne() : servers.head.wakeOne();
  }

  bool isDead(Side side) {
    if (!execution.dead[side]) {
      return false;
    }
    deaths.fetch_add(1, rl::mo_acq_rel, $);
    return true;
  }

  orvane::ring::ProducerCounters<Word> producers;
  orvane::ring::ServerCounters<Word> servers;
  rl::var<unsigned int> slots[kSlots];
  rl::atomic<unsigned int> deaths;
  unsigned int taken = 0;
  std::uint64_t takenBytes = 0;
};

struct Outcome {
  bool failed;
  rl::iteration_t executions;
  std::string result;
};

Outcome simulate(Defect which, rl::iteration_t executions, bool withHistory) {
  defect = which;
  std::ostream nowhere(nullptr);
  rl::test_params params;
  params.iteration_count = executions;
  params.collect_history = withHistory;
  params.output_stream = withHistory ? &std::cout : &nowhere;
  params.progress_stream = &nowhere;
  const bool succeeded = rl::simulate<HandOver>(params);
  return {!succeeded, params.stop_iteration, rl::test_result_str(params.test_result)};
}

// Returns whether the outcome is the right one.
bool run(const Case& one) {
  const bool isDefect = one.defect != Defect::none;
  const Outcome outcome = simulate(one.defect, isDefect ? kMost : kExecutions, false);
  std::cout << one.name << ": ";
  if (outcome.failed) {
    std::cout << outcome.result << " in execution " << outcome.executions << '\n';
  } else {
    std::cout << outcome.executions << " executions without a failure\n";
  }
  return outcome.failed == isDefect;
}

}  // namespace

int main(int argc, char** argv) {
  bool right = true;
  for (const Case& one : kCases) {
    if (argc < 2) {
      right = run(one) && right;
    } else if (std::strcmp(argv[1], one.name) == 0) {
      simulate(one.defect, kMost, true);
    }
  }
  return right ? 0 : 1;
}
