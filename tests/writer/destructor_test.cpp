#include <gtest/gtest.h>
#include <pthread.h>

#include <cerrno>
#include <limits>
#include <memory>
#include <optional>
#include <stdexcept>

#include "ox/errno_exception.hpp"
#include "replaced_clock.hpp"
#include "replaced_log.hpp"
#include "replaced_waits.hpp"
#include "support/stream.hpp"

namespace orvane::test {
namespace {

class Destructor : public testing::Test {
 protected:
  ~Destructor() override { setClock(std::nullopt); }

  std::unique_ptr<ShmWriter> openWriter(bool benchmark = false) {
    const ReplacedLog quiet([](const std::string&) {});
    auto writer = std::make_unique<ShmWriter>("stream", pair.name(), 7, 0, benchmark);
    writer->open();
    pair.discardAll();
    return writer;
  }

  // Destroys an open writer whose log throws `object` at the first line of its close.
  template <class Type>
  void destroyThrowing(const Type& object, bool benchmark) {
    auto writer = openWriter(benchmark);
    int lines = 0;
    const ReplacedLog log([&](const std::string& format) {
      ++lines;
      if (format.starts_with(benchmark ? "%s: ORVANE_PERF" : "%s: write header")) {
        throw object;
      }
    });
    writer.reset();
    EXPECT_EQ(lines, benchmark ? 2 : 1);
    EXPECT_EQ(mappingsOf(pair.name()), 1U);
    EXPECT_EQ(mappingsOf(pair.responseName()), 1U);
  }

  void swallowsEveryType(bool benchmark) {
    struct Empty {};
    destroyThrowing(1, benchmark);
    destroyThrowing(std::string("text"), benchmark);
    destroyThrowing(Empty(), benchmark);
    destroyThrowing(std::runtime_error("standard"), benchmark);
    destroyThrowing(std::bad_alloc(), benchmark);
    destroyThrowing(Ox_ErrnoException(1001, "ours", ""), benchmark);
  }

  ReplacedWaits waits;
  QueuePair pair;
};

TEST_F(Destructor, SwallowsEveryTypeOfException) {
  swallowsEveryType(false);
}

TEST_F(Destructor, SwallowsEveryTypeOfExceptionInBenchmarkModeToo) {
  swallowsEveryType(true);
}

TEST_F(Destructor, SwallowsTheClocksException) {
  auto writer = openWriter();
  setClock(std::numeric_limits<std::time_t>::max());
  writer.reset();
  EXPECT_EQ(pair.waiting(), 0U);
  EXPECT_EQ(mappingsOf(pair.name()), 1U);
}

TEST_F(Destructor, SwallowsTheExceptionOfABrokenQueue) {
  auto writer = openWriter();
  pair.fill();
  waits.endWith(EINVAL);
  writer.reset();
  EXPECT_EQ(pair.waiting(), 8U);
  EXPECT_EQ(mappingsOf(pair.name()), 1U);
}

TEST_F(Destructor, TriesToCloseOnce) {
  auto writer = openWriter();
  pair.fill();
  writer.reset();
  EXPECT_EQ(waits.take().size(), 1U);
}

int cancelState() {
  int state = -1;
  int unused = 0;
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state);
  pthread_setcancelstate(state, &unused);
  return state;
}

TEST_F(Destructor, CannotBeCancelledInItsCloseAndLeavesTheThreadAsItWas) {
  for (const int before : {PTHREAD_CANCEL_DISABLE, PTHREAD_CANCEL_ENABLE}) {
    auto writer = openWriter();
    pthread_setcancelstate(before, nullptr);
    std::optional<int> inside;
    const ReplacedLog log([&](const std::string&) { inside = cancelState(); });
    writer.reset();
    EXPECT_EQ(inside, PTHREAD_CANCEL_DISABLE);
    EXPECT_EQ(cancelState(), before);
  }
}

TEST_F(Destructor, LeavesTheThreadAsItWasWhenItsCloseFails) {
  auto writer = openWriter();
  pair.fill();
  writer.reset();
  EXPECT_EQ(cancelState(), PTHREAD_CANCEL_ENABLE);
}

}  // namespace
}  // namespace orvane::test
