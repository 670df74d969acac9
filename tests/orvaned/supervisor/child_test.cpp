// The server's own child processes, and what they tell of themselves.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <new>
#include <stdexcept>

#include "supervisor/child.hpp"
#include "support/await.hpp"
#include "support/child.hpp"

namespace {

using orvane::test::eventually;
using orvaned::Heartbeat;
using orvaned::QueueCall;
using std::chrono::milliseconds;

// Steps that this process lets a child go.
class Steps {
 public:
  Steps() {
    if (pipe(ends) != 0) {
      throw std::runtime_error("no pipe");
    }
  }
  ~Steps() {
    close(ends[0]);
    close(ends[1]);
  }
  Steps(const Steps&) = delete;
  Steps& operator=(const Steps&) = delete;

  void allow() { EXPECT_EQ(write(ends[1], "x", 1), 1); }
  void await() {
    char byte = 0;
    if (read(ends[0], &byte, 1) != 1) {
      _exit(1);
    }
  }

 private:
  int ends[2] = {};
};

TEST(ProcessChild, EndsWithTheStatusOfItsTask) {
  Steps steps;
  orvaned::Child child([&](Heartbeat&) {
    steps.await();
    return 3;
  });
  EXPECT_EQ(child.ended(), std::nullopt);
  steps.allow();
  ASSERT_TRUE(eventually([&] { return child.ended().has_value(); }));
  EXPECT_TRUE(WIFEXITED(*child.ended()));
  EXPECT_EQ(WEXITSTATUS(*child.ended()), 3);
}

TEST(ProcessChild, EndsWithTheSignalThatKilledIt) {
  orvaned::Child child([](Heartbeat&) { return pause(); });
  child.signal(SIGKILL);
  ASSERT_TRUE(eventually([&] { return child.ended().has_value(); }));
  EXPECT_TRUE(WIFSIGNALED(*child.ended()));
  EXPECT_EQ(WTERMSIG(*child.ended()), SIGKILL);
}

TEST(ProcessChild, IsKilledWithItsObject) {
  pid_t process = 0;
  {
    const orvaned::Child child([](Heartbeat&) { return pause(); });
    process = child.process();
    EXPECT_EQ(kill(process, 0), 0);
  }
  EXPECT_EQ(kill(process, 0), -1);
  EXPECT_EQ(errno, ESRCH);
}

TEST(ProcessChild, IsToldToEndWhenItsOwnerDies) {
  int lives[2] = {};
  ASSERT_EQ(pipe(lives), 0);
  {
    orvane::test::Child owner([&] {
      const orvaned::Child child(
          [&](Heartbeat&) { return write(lives[1], "x", 1) == 1 ? pause() : 1; });
      pause();
    });
    char byte = 0;
    ASSERT_EQ(read(lives[0], &byte, 1), 1);
    owner.signal(SIGKILL);
    EXPECT_EQ(owner.nextChange(), "signal 9");
    close(lives[1]);
    EXPECT_EQ(read(lives[0], &byte, 1), 0) << "its end of the pipe is closed with it";
  }
  close(lives[0]);
}

TEST(ProcessChild, EndsAtTerminationThoughItInheritsTheSignalBlocked) {
  sigset_t termination;
  sigset_t before;
  sigemptyset(&termination);
  sigaddset(&termination, SIGTERM);
  sigprocmask(SIG_BLOCK, &termination, &before);
  {
    orvaned::Child child([](Heartbeat&) {
      orvaned::endAtTermination();
      return pause();
    });
    child.signal(SIGTERM);
    ASSERT_TRUE(eventually([&] { return child.ended().has_value(); }));
    EXPECT_TRUE(WIFSIGNALED(*child.ended()));
    EXPECT_EQ(WTERMSIG(*child.ended()), SIGTERM);
  }
  sigprocmask(SIG_SETMASK, &before, nullptr);
}

TEST(ProcessChild, SaysWhenItIsReady) {
  Steps steps;
  orvaned::Child child([&](Heartbeat& heartbeat) {
    steps.await();
    heartbeat.ready = true;
    return pause();
  });
  EXPECT_FALSE(child.isReady());
  steps.allow();
  EXPECT_TRUE(eventually([&] { return child.isReady(); }));
}

TEST(ProcessChild, TellsWhenItsTaskThrew) {
  for (const bool known : {true, false}) {
    orvaned::Child child([known](Heartbeat&) -> int {
      if (known) {
        throw std::bad_alloc();
      }
      throw 1;
    });
    ASSERT_TRUE(eventually([&] { return child.ended().has_value(); }));
    EXPECT_TRUE(WIFEXITED(*child.ended()));
    EXPECT_EQ(WEXITSTATUS(*child.ended()), 3);
  }
}

TEST(ProcessChild, MayOutliveItsOwner) {
  int lives[2] = {};
  ASSERT_EQ(pipe(lives), 0);
  orvane::test::Child owner([&] {
    const pid_t parent = getpid();
    const orvaned::Child child(
        [&](Heartbeat&) {
          while (getppid() == parent) {
            sched_yield();
          }
          return write(lives[1], "x", 1) == 1 ? 0 : 1;
        },
        orvaned::Child::Orphaned::continues);
    raise(SIGKILL);
  });
  EXPECT_EQ(owner.nextChange(), "signal 9");
  char byte = 0;
  EXPECT_EQ(read(lives[0], &byte, 1), 1);
  close(lives[0]);
  close(lives[1]);
}

TEST(ProcessChild, IsBusyWhileItUsesTheProcessorAndTakesNoMessage) {
  orvaned::Child child([](Heartbeat& heartbeat) {
    while (!heartbeat.ready) {
    }
    return 0;
  });
  EXPECT_TRUE(eventually([&] { return child.busyWithoutMessage() >= milliseconds(200); }));
}

TEST(ProcessChild, IsNotBusyWhileItTakesMessages) {
  orvaned::Child child([](Heartbeat& heartbeat) {
    while (!heartbeat.ready) {
      heartbeat.messages = heartbeat.messages + 1;
    }
    return 0;
  });
  const auto begin = std::chrono::steady_clock::now();
  while (std::chrono::steady_clock::now() - begin < milliseconds(300)) {
    EXPECT_LT(child.busyWithoutMessage(), milliseconds(100));
  }
}

TEST(ProcessChild, IsNotBusyWhileItWaits) {
  orvaned::Child child([](Heartbeat&) { return pause(); });
  const auto begin = std::chrono::steady_clock::now();
  while (std::chrono::steady_clock::now() - begin < milliseconds(100)) {
    EXPECT_LT(child.busyWithoutMessage(), milliseconds(10));
  }
}

TEST(ProcessChild, IsInsideAQueueCallForAsLongAsTheCallLasts) {
  Steps steps;
  Steps done;
  orvaned::Child child([&](Heartbeat& heartbeat) {
    for (int call = 0; call < 2; ++call) {
      steps.await();
      const QueueCall inside(heartbeat);
      done.allow();
      steps.await();
    }
    done.allow();
    return pause();
  });
  const auto inside = [&] { return child.insideQueueCall(); };
  const auto now = [] { return std::chrono::steady_clock::now(); };

  for (const auto begin = now(); now() - begin < milliseconds(20);) {
    EXPECT_EQ(inside().count(), 0) << "before the call";
  }
  steps.allow();
  done.await();
  EXPECT_TRUE(eventually([&] { return inside() >= milliseconds(20); }));
  steps.allow();
  steps.allow();
  done.await();  // the second call has begun
  const auto begin = now();
  EXPECT_LE(inside().count(), 0) << "another call";
  EXPECT_TRUE(eventually([&] { return inside() > milliseconds(0); }));
  const auto length = inside();
  EXPECT_LE(length, now() - begin);
  steps.allow();
  done.await();  // and ended
  EXPECT_EQ(inside().count(), 0);
  EXPECT_EQ(inside().count(), 0);
}

}  // namespace
