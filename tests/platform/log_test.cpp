#include "ox/log.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <stdexcept>
#include <string>
#include <vector>

#include "ox/sink.hpp"
#include "ox/trace.hpp"
#include "support/recording_sink.hpp"
#include "support/waiting_thread.hpp"

namespace orvane::test {
namespace {

// Each of the functions that log, once.
void logEverything() {
  InfoA(1, "%s", "a line");
  AuthA(2, "%s", "a line");
  WarningA(3, "%s", "a line");
  ErrorA(4, "%s", std::string(2000, 'x').c_str());
  __Trace("%s", "a line");
  const AutoTrace scope("operation");
}
constexpr int kLines = 7;

// While it lives, lines go to `sink` and tracing is on.
class Sinking {
 public:
  explicit Sinking(ox::Sink sink) {
    ox::setSink(sink);
    ox::setTracing(true);
  }
  ~Sinking() {
    ox::setTracing(false);
    ox::setSink(nullptr);
  }
  Sinking(const Sinking&) = delete;
  Sinking& operator=(const Sinking&) = delete;
};

std::atomic<int> linesSeen = 0;

template <typename Thrown>
void throwing(ox::Kind, int, const char*) {
  ++linesSeen;
  throw Thrown();
}

template <typename Thrown>
void expectDropped() {
  const Sinking sinking(throwing<Thrown>);
  linesSeen = 0;
  errno = EXDEV;
  EXPECT_NO_THROW(logEverything());
  EXPECT_EQ(linesSeen, kLines);
  EXPECT_EQ(errno, EXDEV);
}

TEST(PlatformLog, DropsWhatASinkThrowsOfAnyType) {
  struct OfNoBase {};
  expectDropped<OfNoBase>();
  expectDropped<int>();
  expectDropped<std::string>();
  expectDropped<std::bad_alloc>();
  expectDropped<std::bad_exception>();
}

TEST(PlatformLog, IsNotCancelledInsideASink) {
  const Sinking sinking([](ox::Kind, int, const char*) {
    pthread_testcancel();
    ++linesSeen;
  });
  linesSeen = 0;
  WaitingThread thread([] {
    pthread_cancel(pthread_self());
    logEverything();
  });
  EXPECT_FALSE(thread.returns()) << "it is cancelled afterwards";
  EXPECT_EQ(linesSeen, kLines);
}

TEST(PlatformLog, LeavesAThreadsWishNotToBeCancelledAlone) {
  const Sinking sinking([](ox::Kind, int, const char*) {});
  for (const int state : {PTHREAD_CANCEL_DISABLE, PTHREAD_CANCEL_ENABLE}) {
    int after = -1;
    pthread_setcancelstate(state, nullptr);
    logEverything();
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &after);
    EXPECT_EQ(after, state);
  }
}

// Sinks were compiled with these numbers.
TEST(PlatformLog, NumbersItsKindsInOrder) {
  EXPECT_EQ(static_cast<int>(ox::Kind::info), 0);
  EXPECT_EQ(static_cast<int>(ox::Kind::auth), 1);
  EXPECT_EQ(static_cast<int>(ox::Kind::warning), 2);
  EXPECT_EQ(static_cast<int>(ox::Kind::error), 3);
  EXPECT_EQ(static_cast<int>(ox::Kind::trace), 4);
  EXPECT_EQ(static_cast<int>(ox::Kind::enter), 5);
  EXPECT_EQ(static_cast<int>(ox::Kind::leave), 6);
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat"  // %m is the C library's own
TEST(PlatformLog, FormatsTheCallersErrno) {
  RecordingSink sink;
  errno = ENOENT;
  ErrorA(1, "%m");
  const std::string longText(2000, 'x');
  ErrorA(2, "%m %s", longText.c_str());
  EXPECT_EQ(sink.take(),
            (std::vector<Line>{{ox::Kind::error, 1, "No such file or directory"},
                               {ox::Kind::error, 2, "No such file or directory " + longText}}));
  EXPECT_EQ(errno, ENOENT);
}
#pragma GCC diagnostic pop

TEST(PlatformLog, FillsLongLinesFromAllTheirArguments) {
  RecordingSink sink;
  const std::string longText(2000, 'x');
  __Trace("%d %s %.1f %lld %s %c", 1, longText.c_str(), 2.5, 1LL << 40, "end", 'c');
  EXPECT_EQ(sink.take(), std::vector{traced("1 " + longText + " 2.5 1099511627776 end c")});
}

TEST(PlatformLog, GoesToTheSameSinkAfterItThrew) {
  const Sinking sinking([](ox::Kind, int, const char*) {
    if (++linesSeen == 1) {
      throw std::runtime_error("once");
    }
  });
  linesSeen = 0;
  logEverything();
  logEverything();
  EXPECT_EQ(linesSeen, 2 * kLines);
}

// Standard error as a pipe that is full.
class FullStderr {
 public:
  FullStderr() : before(dup(STDERR_FILENO)) {
    if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) {
      throw std::runtime_error("pipe2");
    }
    const std::string block(4096, 'x');
    for (ssize_t written = 0; written >= 0; written = write(ends[1], block.data(), block.size())) {
      filled += static_cast<std::size_t>(written);
    }
    fcntl(ends[0], F_SETFL, 0);
    fcntl(ends[1], F_SETFL, 0);
    dup2(ends[1], STDERR_FILENO);
  }
  ~FullStderr() {
    dup2(before, STDERR_FILENO);
    for (const int descriptor : {before, ends[0], ends[1]}) {
      close(descriptor);
    }
  }
  FullStderr(const FullStderr&) = delete;
  FullStderr& operator=(const FullStderr&) = delete;

  // What comes behind that which filled it, up to `end`.
  std::string readTo(char end) {
    std::string text;
    for (char c = 0; c != end && read(ends[0], &c, 1) == 1;) {
      if (filled > 0) {
        --filled;
      } else {
        text += c;
      }
    }
    return text;
  }

 private:
  int before;
  int ends[2] = {-1, -1};
  std::size_t filled = 0;
};

TEST(PlatformStderr, GetsTheWholeLineOfAThreadThatIsCancelledMeanwhile) {
  FullStderr full;
  WaitingThread thread([] { WarningA(5, "the last line"); });
  thread.awaitWrite();
  thread.cancel();

  EXPECT_EQ(full.readTo('\n'), "warning 5: the last line\n");
  EXPECT_FALSE(thread.returns()) << "it is cancelled afterwards";
}

TEST(PlatformStderr, GetsTheLineOfAThreadThatASignalInterrupts) {
  struct sigaction action = {};
  struct sigaction before = {};
  static std::atomic<int> signals = 0;
  action.sa_handler = [](int) { ++signals; };  // without SA_RESTART
  sigaction(SIGUSR1, &action, &before);
  FullStderr full;
  errno = 0;
  int errnoBehind = -1;
  WaitingThread thread([&] {
    errno = EXDEV;
    WarningA(5, "an interrupted line");
    errnoBehind = errno;
  });
  thread.awaitWrite();
  thread.signal(SIGUSR1);
  while (signals == 0) {
    sched_yield();
  }
  ASSERT_NO_THROW(thread.awaitWrite()) << "it gave up";

  EXPECT_EQ(full.readTo('\n'), "warning 5: an interrupted line\n");
  EXPECT_TRUE(thread.returns());
  EXPECT_EQ(errnoBehind, EXDEV);
  sigaction(SIGUSR1, &before, nullptr);
}

}  // namespace
}  // namespace orvane::test
