#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <memory>
#include <string>
#include <vector>

#include "orvane/lease.hpp"
#include "replaced_calls.hpp"
#include "support/fake_server.hpp"
#include "support/throws.hpp"
#include "support/waiting_thread.hpp"
#include "texts.hpp"

namespace orvane::test {
namespace {

constexpr unsigned int kDay = 86400;
constexpr unsigned int kSlack = 30;  // so long may a busy machine take from one call to the next

TEST(LeaseStatus, HasTheNumbersThatCallersCompareWith) {
  EXPECT_EQ(kLeaseNoServer, 900);
  EXPECT_EQ(kLeaseLost, 901);
}

std::unique_ptr<Lease> takenFrom(FakeServer& server, unsigned int timeout = kLong) {
  server.serve({.says = {"lease q"}});
  auto lease = std::make_unique<Lease>(server.path(), timeout);
  server.awaitScript();
  return lease;
}

TEST(LeaseTaking, RaisesNoSignalWhenTheServerIsGone) {
  static std::atomic<int> signals = 0;
  struct sigaction action = {};
  struct sigaction before = {};
  action.sa_handler = [](int) { ++signals; };
  sigaction(SIGPIPE, &action, &before);
  FakeServer server;
  server.serve({.hears = false, .ends = true});
  replacedCalls().beforeSend = [&] { server.awaitScript(); };

  EXPECT_TRUE(throwsErrno(901, kLost, [&] { Lease(server.path(), kLong); }));

  EXPECT_EQ(signals, 0);
  EXPECT_EQ(replacedCalls().sendFlags, std::vector<int>{MSG_NOSIGNAL});
  sigaction(SIGPIPE, &before, nullptr);
}

TEST(LeaseTaking, HearsAServerThatResetsTheConnectionWhileItIsAsked) {
  for (const char* const call : {"send", "recvmsg"}) {
    FakeServer server;
    server.serve({.says = {"refused 1004 the server is ending"}, .hears = false});
    failNext(call, ECONNRESET);
    EXPECT_TRUE(throwsErrno(1004, "the server is ending", [&] { Lease(server.path(), kLong); }))
        << call;
  }
}

TEST(LeaseTaking, WaitsByAClockThatNobodySets) {
  FakeServer server;
  server.serve({});
  replacedCalls().wallClockJumps = true;
  const Stopwatch watch;

  EXPECT_TRUE(throwsErrno(15, timedOut("1"), [&] { Lease(server.path(), 1); }));

  EXPECT_GE(watch.seconds(), 1);
}

TEST(LeaseReceipt, IsWaitedForByAClockThatNobodySets) {
  FakeServer server;
  const std::unique_ptr<Lease> lease = takenFrom(server);
  replacedCalls().wallClockJumps = true;
  const Stopwatch watch;

  EXPECT_TRUE(throwsErrno(15, timedOut("1"), [&] { lease->receipt(1); }));

  EXPECT_GE(watch.seconds(), 1);
}

TEST(LeaseTaking, WaitsForNoMoreThanItsTimeout) {
  for (const unsigned int timeout : {60U, 61U, 4295U, kDay}) {
    replacedCalls() = ReplacedCalls();
    FakeServer server;
    const std::unique_ptr<Lease> lease = takenFrom(server, timeout);
    ASSERT_EQ(replacedCalls().sendLimits.size(), 1U);
    const timeval limit = replacedCalls().sendLimits[0];
    const double seconds = static_cast<double>(limit.tv_sec) + 1e-6 * double(limit.tv_usec);
    EXPECT_LT(limit.tv_usec, 1'000'000);
    EXPECT_GT(seconds, timeout - kSlack);
    EXPECT_LE(seconds, timeout);
    ASSERT_EQ(replacedCalls().pollTimeouts.size(), 1U);
    EXPECT_GE(replacedCalls().pollTimeouts[0], static_cast<int>((timeout - kSlack) * 1000));
    EXPECT_LE(replacedCalls().pollTimeouts[0], static_cast<int>(timeout * 1000));
  }
}

TEST(LeaseTaking, NamesTheWholeOfALongTimeoutInItsError) {
  FakeServer server;
  failNext("connect", EAGAIN);
  EXPECT_TRUE(throwsErrno(15, timedOut("86400"), [&] { Lease(server.path(), kDay); }));
}

TEST(LeaseTaking, WaitsForTheLeastTimeThereIsWhenItsTimeoutHasPassed) {
  FakeServer server;
  replacedCalls().steadyClockJumps = true;

  EXPECT_TRUE(throwsErrno(15, timedOut("60"), [&] { Lease(server.path(), kLong); }));

  ASSERT_EQ(replacedCalls().sendLimits.size(), 1U);
  EXPECT_EQ(replacedCalls().sendLimits[0].tv_sec, 0);
  EXPECT_EQ(replacedCalls().sendLimits[0].tv_usec, 1) << "0 would mean without a limit";
  EXPECT_EQ(replacedCalls().pollTimeouts, std::vector<int>{0});
}

TEST(LeaseTaking, WorksInAProcessWithoutStandardInput) {
  FakeServer server;
  server.serve({.says = {"lease q"}});
  const int standardInput = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  close(STDIN_FILENO);
  {
    const Lease lease(server.path(), kLong);
    EXPECT_EQ(lease.queueName(), "q");
    struct stat taken = {};
    EXPECT_EQ(fstat(STDIN_FILENO, &taken), 0);
    EXPECT_TRUE(S_ISSOCK(taken.st_mode)) << "the socket has the lowest free number, which is 0";
  }
  if (standardInput >= 0) {
    dup2(standardInput, STDIN_FILENO);
    close(standardInput);
  }
}

TEST(LeaseReceipt, IsWaitedForNoLongerThanItsTimeout) {
  FakeServer server;
  const std::unique_ptr<Lease> lease = takenFrom(server);
  for (const unsigned int timeout : {kSlack, 61U, kDay}) {
    replacedCalls() = ReplacedCalls();
    server.say(kShortReceipt);
    EXPECT_EQ(textOf(lease->receipt(timeout)), kShortReceipt);
    ASSERT_EQ(replacedCalls().pollTimeouts.size(), 1U);
    EXPECT_GE(replacedCalls().pollTimeouts[0], static_cast<int>((timeout - kSlack) * 1000));
    EXPECT_LE(replacedCalls().pollTimeouts[0], static_cast<int>(timeout * 1000));
    EXPECT_EQ(replacedCalls().polled[0].events, POLLIN);
  }
}

TEST(LeaseReceipt, IsLookedForWithoutWaitingInThePoll) {
  FakeServer server;
  const std::unique_ptr<Lease> lease = takenFrom(server);
  replacedCalls() = ReplacedCalls();
  EXPECT_TRUE(throwsErrno(15, timedOut("0"), [&] { lease->receipt(0); }));
  EXPECT_EQ(replacedCalls().pollTimeouts, std::vector<int>{0});
}

TEST(LeaseReceipt, IsReceivedWithoutWaitingAfterAFalseAlarm) {
  FakeServer server;
  const std::unique_ptr<Lease> lease = takenFrom(server);
  replacedCalls() = ReplacedCalls();
  server.say(kShortReceipt);
  EXPECT_EQ(textOf(lease->receipt(0)), kShortReceipt);
  // Otherwise what follows would wait for ever.
  ASSERT_EQ(replacedCalls().recvFlags,
            (std::vector<int>{MSG_DONTWAIT | MSG_TRUNC | MSG_CMSG_CLOEXEC}));

  replacedCalls().falseAlarms = 3;
  EXPECT_TRUE(throwsErrno(15, timedOut("0"), [&] { lease->receipt(0); }));
  EXPECT_EQ(replacedCalls().falseAlarms, 0);
}

TEST(LeaseAlive, LooksAtTheServersEndWithoutWaiting) {
  FakeServer server;
  const std::unique_ptr<Lease> lease = takenFrom(server);
  replacedCalls() = ReplacedCalls();
  EXPECT_TRUE(lease->alive());
  EXPECT_EQ(replacedCalls().pollTimeouts, std::vector<int>{0});
}

TEST(LeaseAlive, IsNotSaidOfAServerThatHearsButSaysNoMore) {
  FakeServer server;
  const std::unique_ptr<Lease> lease = takenFrom(server);
  server.say(kShortReceipt);
  server.stopSaying();

  EXPECT_FALSE(lease->alive());
  EXPECT_EQ(textOf(lease->receipt(0)), kShortReceipt);
  EXPECT_TRUE(throwsErrno(901, kLost, [&] { lease->receipt(0); }));
}

TEST(LeaseEnd, LeavesAThreadsWishNotToBeCancelledAlone) {
  for (const int state : {PTHREAD_CANCEL_DISABLE, PTHREAD_CANCEL_ENABLE}) {
    FakeServer server;
    std::unique_ptr<Lease> lease = takenFrom(server);
    int after = -1;
    pthread_setcancelstate(state, nullptr);
    lease.reset();
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &after);
    EXPECT_EQ(after, state);
  }
}

// The status and the reason of a packet "refused ..." and "failed ...".
testing::AssertionResult isStatus(const std::string& packet, ox_status_t status,
                                  const std::string& reason) {
  FakeServer server;
  server.serve({.says = {"refused " + packet}});
  const auto refused = throwsErrno(status, reason, [&] { Lease(server.path(), kLong); });
  if (!refused) {
    return refused;
  }
  FakeServer second;
  const std::unique_ptr<Lease> lease = takenFrom(second);
  second.say("failed " + packet);
  return throwsErrno(status, reason, [&] { lease->receipt(0); });
}

testing::AssertionResult isNoStatus(const std::string& packet) {
  FakeServer server;
  server.serve({.says = {"refused " + packet}});
  const auto refused =
      throwsErrno(901, unexpected("refused " + packet), [&] { Lease(server.path(), kLong); });
  if (!refused) {
    return refused;
  }
  FakeServer second;
  const std::unique_ptr<Lease> lease = takenFrom(second);
  second.say("failed " + packet);
  return throwsErrno(901, unexpected("failed " + packet), [&] { lease->receipt(0); });
}

TEST(LeaseStatus, IsFrom1000To2147483647) {
  EXPECT_TRUE(isStatus("1000 lowest", 1000, "lowest"));
  EXPECT_TRUE(isStatus("65536 wide", 65536, "wide"));
  EXPECT_TRUE(isStatus("2147483647 highest", 2147483647, "highest"));
  for (const char* const number : {"999", "0", "-1", "-1000", "2147483648", "4294968296",
                                   "18446744073709552616", "-2147483648"}) {
    EXPECT_TRUE(isNoStatus(std::string(number) + " x")) << number;
  }
}

TEST(LeaseStatus, IsADecimalNumberAndOneBlank) {
  for (const char* const packet : {"+1000 x", " 1000 x", "0x3e8 x", "1000", "1000x", "1000.5 x",
                                   "1e3 x", "1000, x", "x 1000"}) {
    EXPECT_TRUE(isNoStatus(packet)) << packet;
  }
  EXPECT_TRUE(isStatus("1000  two blanks", 1000, " two blanks"));
  EXPECT_TRUE(isStatus("1000 1001 x", 1000, "1001 x"));
}

TEST(LeasePacket, HasNoControlCharacter) {
  for (int c = 0; c < 256; ++c) {
    FakeServer server;
    const std::unique_ptr<Lease> lease = takenFrom(server);
    const std::string reason = "a" + std::string(1, static_cast<char>(c));
    server.say("failed 1003 " + reason);
    if (c < 0x20 || c == 0x7f) {
      EXPECT_TRUE(throwsErrno(901, unexpected("14 bytes"), [&] { lease->receipt(0); })) << c;
    } else {
      EXPECT_TRUE(throwsErrno(1003, reason, [&] { lease->receipt(0); })) << c;
    }
  }
}

}  // namespace
}  // namespace orvane::test
