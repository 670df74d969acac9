// Who may read the totals of rings, over the socket at which they are leased.

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>

#include "ring/raw_ring.hpp"
#include "shm/totals.hpp"
#include "support/lease_fixture.hpp"

namespace orvane::test {
namespace {

constexpr uid_t kNobody = 65534;

// The name in "ring NAME BYTES".
std::string nameIn(const std::string& answer) {
  const std::size_t begin = std::string("ring ").size();
  return answer.substr(begin, answer.rfind(' ') - begin);
}

class RingTotalsTest : public LeaseTest {
 protected:
  // A ring with its connection.
  struct Leased {
    LeaseClient client;
    LeaseClient::Ring ring;

    explicit Leased(const std::string& socket) : client(socket), ring(client.askForRing(kRing)) {}
    std::string name() const { return nameIn(ring.answer); }
  };

  const std::string user = std::to_string(geteuid());
};

// Its worker is ready a moment after the answer.
LeaseClient::Ring firstTotals(const std::string& socket) {
  LeaseClient::Ring found;
  EXPECT_TRUE(eventually([&] {
    found = LeaseClient(socket).askForTotals();
    return found.answer != "totals";
  }));
  return found;
}

TEST_F(RingTotalsTest, AreGivenOneRingAfterAnotherInTheOrderOfNames) {
  start();
  const LeaseClient reader(socket);
  EXPECT_EQ(reader.askForTotals().answer, "totals");
  const Leased a(socket);
  const Leased b(socket);
  const std::string first = std::min(a.name(), b.name());
  const std::string second = std::max(a.name(), b.name());
  EXPECT_TRUE(eventually([&] { return reader.askForTotals().answer == "totals " + first; }));
  EXPECT_TRUE(eventually([&] { return reader.askForTotals(first).answer == "totals " + second; }));
  const LeaseClient::Ring none = reader.askForTotals(second);
  EXPECT_EQ(none.answer, "totals");
  EXPECT_EQ(none.files.size(), 0U);
}

TEST_F(RingTotalsTest, CountWhatTheWorkerStores) {
  start();
  const Leased leased(socket);
  const LeaseClient::Ring found = firstTotals(socket);
  EXPECT_EQ(found.answer, "totals " + leased.name());
  ASSERT_EQ(found.files.size(), 1U);
  const MappedFile file(found.files[0].get());
  const auto& ring = *reinterpret_cast<const tool::RingTotals*>(file.at(0));
  const tool::Totals& totals = ring.totals;
  EXPECT_EQ(totals.magic, tool::kTotalsMagic);
  EXPECT_EQ(totals.version, 3U);
  EXPECT_EQ(totals.server, static_cast<std::uint64_t>(server->process()));
  EXPECT_EQ(totals.userPlusOne, geteuid() + 1U);
  EXPECT_EQ(ring.bytes, kRing);
  EXPECT_EQ(totals.messages, 0U);
  RawProducer(leased.ring.files.at(0).get(), leased.ring.files.at(1).get())
      .publish(BatchBytes().records({kOpen, kHello}).bytes());
  EXPECT_TRUE(eventually([&] { return totals.bytes == 5U; }));
  EXPECT_EQ(totals.streams, 1U);
  EXPECT_TRUE(eventually([&] { return ring.waiting == 0U; }));
}

TEST_F(RingTotalsTest, CanOnlyBeRead) {
  start();
  const Leased leased(socket);
  const LeaseClient::Ring found = firstTotals(socket);
  ASSERT_EQ(found.files.size(), 1U);
  const int file = found.files[0].get();
  EXPECT_EQ(mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0), MAP_FAILED);
  EXPECT_EQ(pwrite(file, "x", 1, 0), -1);
  EXPECT_EQ(ftruncate(file, 0), -1);
  EXPECT_EQ(fcntl(file, F_ADD_SEALS, F_SEAL_WRITE), -1);
}

TEST_F(RingTotalsTest, AreGivenForRingsThatAreServed) {
  start();
  LeasedProducer queues(socket);
  Leased leased(socket);
  const std::string name = leased.name();
  EXPECT_EQ(firstTotals(socket).answer, "totals " + name);
  leased.client.close();
  EXPECT_TRUE(eventually([&] { return LeaseClient(socket).askForTotals().answer == "totals"; }));
}

TEST_F(RingTotalsTest, NeedNoLease) {
  start({"--pairs-per-user", "1"});
  const Leased leased(socket);
  EXPECT_EQ(firstTotals(socket).answer, "totals " + leased.name());
  const LeaseClient reader(socket);
  reader.askForTotals();
  EXPECT_EQ(LeaseClient(socket).ask(), "refused 1005 user " + user +
                                           " has 1 leases, as many as it may: end one, or start "
                                           "orvaned with a larger --pairs-per-user");
}

TEST_F(RingTotalsTest, AreNotALeaseBesideOthers) {
  start({"--pairs-per-user", "1"});
  const LeaseClient reader(socket);
  EXPECT_EQ(reader.askForTotals().answer, "totals");
  EXPECT_TRUE(LeaseClient(socket).ask().starts_with("orvane-"));
}

TEST_F(RingTotalsTest, AreReadOverTwoConnectionsOfAUserAtMost) {
  start();
  const LeaseClient first(socket);
  EXPECT_EQ(first.askForTotals().answer, "totals");
  {
    const LeaseClient second(socket);
    EXPECT_EQ(second.askForTotals().answer, "totals");
    const LeaseClient third(socket);
    EXPECT_EQ(third.askForTotals().answer,
              "refused 1005 user " + user +
                  " reads totals over 2 connections, as many as it may: end one");
    EXPECT_EQ(third.next(), kEnd);
    EXPECT_EQ(second.askForTotals().answer, "totals") << "a known reader may ask again";
  }
  EXPECT_TRUE(eventually([&] { return LeaseClient(socket).askForTotals().answer == "totals"; }));
}

// Each answer holds one of the descriptors that the system lets a user have on the way.
TEST_F(RingTotalsTest, AreNotGivenBeforeTheLastAnswerWasRead) {
  start();
  const Leased leased(socket);
  firstTotals(socket);
  const LeaseClient hasty(socket);
  hasty.send("orvane 1 totals");
  hasty.send("orvane 1 totals");
  EXPECT_TRUE(eventually([&] { return hasty.hasEnded(); }));
  EXPECT_EQ(hasty.nextWithFiles().answer, "totals " + leased.name());
  EXPECT_EQ(hasty.nextWithFiles().answer, kEnd);
}

TEST_F(RingTotalsTest, AreNoLongerGivenAfterFiveSecondsWithoutARequest) {
  start();
  const LeaseClient reader(socket);
  EXPECT_EQ(reader.askForTotals().answer, "totals");
  EXPECT_EQ(reader.next(), kEnd);
}

TEST_F(RingTotalsTest, AreNoLeaseAfterwards) {
  start();
  const LeaseClient reader(socket);
  EXPECT_EQ(reader.askForTotals().answer, "totals");
  EXPECT_TRUE(reader.ask().starts_with("orvane-"));
}

// Only root can become another user.
TEST_F(RingTotalsTest, OfAnotherUserAreNotSeen) {
  if (geteuid() != 0) {
    return;
  }
  start({"--mode", "666"});
  std::filesystem::permissions(folder.path(), std::filesystem::perms::all);
  const Leased leased(socket);
  EXPECT_EQ(firstTotals(socket).answer, "totals " + leased.name());
  const pid_t other = fork();
  if (other == 0) {
    if (setresuid(kNobody, kNobody, kNobody) != 0) {
      _exit(1);
    }
    const Leased own(socket);
    const bool sawOwn = eventually(
        [&] { return LeaseClient(socket).askForTotals().answer == "totals " + own.name(); });
    const bool sawNoMore = LeaseClient(socket).askForTotals(own.name()).answer == "totals";
    _exit(sawOwn && sawNoMore ? 0 : 2);
  }
  int status = -1;
  ASSERT_EQ(waitpid(other, &status, 0), other);
  EXPECT_EQ(status, 0);
}

}  // namespace
}  // namespace orvane::test
