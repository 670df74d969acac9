#include <gtest/gtest.h>

#include "interruptions.hpp"
#include "orvane/lease.hpp"
#include "support/fake_server.hpp"
#include "support/throws.hpp"
#include "support/waiting_thread.hpp"
#include "texts.hpp"

namespace orvane::test {
namespace {

const char kFirst[] =
    "receipt stream=20261121T023224-4711_0 records=12 bytes=9 segments=2 end=closed";
const char kSecond[] =
    "receipt stream=20261121T023224-4711_1 records=0 bytes=0 segments=0 end=stopped";
FakeServer::Script leaseAnd(std::vector<std::string> more, bool hears = true) {
  more.insert(more.begin(), "lease q");
  return {.says = std::move(more), .hears = hears};
}

// A lease that was taken.
class LeaseReceipt : public testing::Test {
 protected:
  explicit LeaseReceipt(FakeServer::Script script = leaseAnd({}))
      : lease((server.serve(std::move(script)), server.path()), kLong) {}

  testing::AssertionResult throws(ox_status_t status, const std::string& message,
                                  unsigned int timeout = kLong) {
    return throwsErrno(status, message, [&] { lease.receipt(timeout); });
  }

  FakeServer server;
  Lease lease;
};

TEST_F(LeaseReceipt, HasWhatTheServerCounted) {
  server.say(kFirst);
  EXPECT_EQ(lease.receipt(kLong), (Receipt{"20261121T023224-4711_0", 12, 9, 2, StreamEnd::closed}));
}

TEST_F(LeaseReceipt, ComesInTheServersOrder) {
  server.say(kFirst);
  server.say(kSecond);

  EXPECT_EQ(textOf(lease.receipt(0)), kFirst);
  EXPECT_EQ(textOf(lease.receipt(0)), kSecond);
}

TEST_F(LeaseReceipt, MayBeAsLongAsAPacket) {
  const std::string longest =
      "receipt stream=" + std::string(456, 'x') + " records=12 bytes=9 segments=2 end=closed";
  ASSERT_EQ(longest.size(), 512U);
  server.say(longest);
  EXPECT_EQ(textOf(lease.receipt(0)), longest);
}

TEST_F(LeaseReceipt, OfAStreamThatCouldNotBeStoredIsTheServersStatusAndReason) {
  server.say("failed 1003 No space left on device");
  server.say(kSecond);

  EXPECT_TRUE(throws(1003, "No space left on device"));

  EXPECT_TRUE(lease.alive());
  EXPECT_EQ(textOf(lease.receipt(0)), kSecond);
}

TEST_F(LeaseReceipt, ReasonMayNameAFileInAnyLanguage) {
  server.say(
      "failed 1003 /srv/b\xc3\xbc"
      "cher: No space left on device");
  EXPECT_TRUE(throws(1003,
                     "/srv/b\xc3\xbc"
                     "cher: No space left on device"));
}

TEST_F(LeaseReceipt, IsLookedForWithoutWaiting) {
  EXPECT_TRUE(throws(15, timedOut("0"), 0));

  EXPECT_TRUE(lease.alive());
  server.say(kFirst);
  EXPECT_EQ(textOf(lease.receipt(0)), kFirst);
}

TEST_F(LeaseReceipt, IsWaitedForUpToTheTimeout) {
  const Stopwatch watch;

  EXPECT_TRUE(throws(15, timedOut("1"), 1));

  EXPECT_GE(watch.seconds(), 1);
  EXPECT_LT(watch.seconds(), kLong);
  EXPECT_TRUE(lease.alive());
  server.say(kFirst);
  EXPECT_EQ(textOf(lease.receipt(0)), kFirst);
}

TEST_F(LeaseReceipt, IsWaitedForUpToTheTimeoutUnderSignals) {
  const Interruptions interruptions;
  const Stopwatch watch;

  EXPECT_TRUE(throws(15, timedOut("1"), 1));

  EXPECT_GE(watch.seconds(), 1);
  EXPECT_LT(watch.seconds(), kLong);
  EXPECT_GT(interruptions.count(), 10);
}

TEST_F(LeaseReceipt, RejectsATimeoutOfMoreThanADay) {
  server.say(kFirst);

  EXPECT_TRUE(throws(
      9, "Invalid timeout, specified value 86401 was more than maximum allowed value of 86400",
      86401));

  EXPECT_EQ(textOf(lease.receipt(86400)), kFirst);
}

TEST_F(LeaseReceipt, SentBeforeTheServersEndIsStillThere) {
  server.say(kFirst);
  server.say("failed 1004 the server was stopped");
  server.end();

  EXPECT_FALSE(lease.alive());
  EXPECT_EQ(textOf(lease.receipt(0)), kFirst);
  EXPECT_TRUE(throws(1004, "the server was stopped", 0));
  EXPECT_TRUE(throws(901, kLost, 0));
  EXPECT_TRUE(throws(901, kLost));
  EXPECT_FALSE(lease.alive());
}

TEST_F(LeaseReceipt, DoesNotComeAfterTheServersEnd) {
  EXPECT_TRUE(lease.alive());
  server.end();

  EXPECT_FALSE(lease.alive());
  EXPECT_TRUE(throws(901, kLost));
  EXPECT_FALSE(lease.alive());
  EXPECT_EQ(lease.queueName(), "q");
}

TEST_F(LeaseReceipt, ThatIsUnreadIsNoEnd) {
  server.say(kFirst);
  EXPECT_TRUE(lease.alive());
}

TEST_F(LeaseReceipt, OfAnotherVersionEndsTheLease) {
  server.say("note all is well");
  server.awaitScript();

  EXPECT_TRUE(throws(901,
                     "Unexpected reply \"note all is well\" (lease protocol 1): client and server "
                     "versions differ; install the same release of both"));

  ASSERT_FALSE(lease.alive());
  EXPECT_TRUE(throws(901, kLost));
  EXPECT_EQ(server.hear(), "") << "the server learns of it";
}

TEST_F(LeaseReceipt, ThatIsEmptyEndsTheLease) {
  server.say("");

  EXPECT_TRUE(throws(901, kLost));

  EXPECT_FALSE(lease.alive());
}

class OddReceipt : public LeaseReceipt,
                   public testing::WithParamInterface<std::pair<std::string, std::string>> {};

TEST_P(OddReceipt, EndsTheLease) {
  const auto& [packet, said] = GetParam();
  server.say(packet);

  EXPECT_TRUE(throws(901, "Unexpected reply \"" + said +
                              "\" (lease protocol 1): client and server versions differ; install "
                              "the same release of both"));

  EXPECT_FALSE(lease.alive());
}

INSTANTIATE_TEST_SUITE_P(
    Each, OddReceipt,
    testing::Values(std::pair("receipt", "receipt"), std::pair("receipts x", "receipts x"),
                    std::pair("receipt x", "receipt x"), std::pair("lease q", "lease q"),
                    std::pair("failed", "failed"), std::pair("failed 15 late", "failed 15 late"),
                    std::pair("failed 1003", "failed 1003"),
                    std::pair("failed x 1003", "failed x 1003"), std::pair("receipt \n", "9 bytes"),
                    std::pair("receipt \x7f", "9 bytes"),
                    std::pair("receipt " + std::string(505, 'x'), "513 bytes"),
                    std::pair(std::string(100000, 'x'), "100000 bytes")));

// A server that never read the request and ended resets the connection.
class ReceiptBeforeReset : public LeaseReceipt {
 protected:
  ReceiptBeforeReset() : LeaseReceipt(leaseAnd({kFirst, kSecond}, false)) { server.end(); }
};

TEST_F(ReceiptBeforeReset, IsStillThere) {
  EXPECT_FALSE(lease.alive());
  EXPECT_EQ(textOf(lease.receipt(0)), kFirst);
  EXPECT_EQ(textOf(lease.receipt(0)), kSecond);
  EXPECT_TRUE(throws(901, kLost, 0));
}

}  // namespace
}  // namespace orvane::test
