// Who gets no lease, and is told why.

#include <chrono>
#include <csignal>
#include <filesystem>
#include <memory>
#include <vector>

#include "support/lease_fixture.hpp"

namespace orvane::test {
namespace {

namespace fs = std::filesystem;

constexpr char kUnknown[] =
    R"(refused 1007 this server understands "orvane 1 lease", "orvane 1 ring BYTES" and "orvane 1 totals")";

class LeaseRequestTest : public LeaseTest {
 protected:
  const std::string user = std::to_string(geteuid());
  const std::string tooManyPairs =
      "refused 1005 user " + user +
      " has 1 leases, as many as it may: end one, or start orvaned with a larger --pairs-per-user";

  static std::string answerTo(const LeaseClient& client, const std::string& request) {
    client.send(request);
    return client.next();
  }

  // Asks until there is room again for a lease: one that ended takes a moment.
  bool isLeasedAgain() const {
    return eventually([this] { return LeaseClient(socket).ask().starts_with("orvane-"); });
  }
};

class BadRequest : public LeaseRequestTest, public testing::WithParamInterface<std::string> {};

TEST_P(BadRequest, IsRefusedAndHarmsNobody) {
  start();
  LeasedProducer other(socket);
  EXPECT_EQ(other.queues.ask({kOpen, kHello}), (Answer{0, ""}));
  const LeaseClient client(socket);
  client.send(GetParam());
  EXPECT_EQ(client.next(), kUnknown);
  EXPECT_EQ(client.next(), kEnd);
  EXPECT_TRUE(server->says(
      " warning 1007 leases::refuse: user " + user + ", process " + std::to_string(getpid()) +
      std::string(kUnknown).replace(0, std::string("refused 1007").size(), ":") + "\n"));
  EXPECT_EQ(other.queues.ask({kClose}).status, 0);
  EXPECT_EQ(other.client.next(),
            "receipt stream=" + streamOf(other.name) + " records=1 bytes=5 segments=1 end=closed");
}

INSTANTIATE_TEST_SUITE_P(
    Request, BadRequest,
    testing::Values("", "rubbish", "orvane 2 lease", "orvane 1 lease\n", "orvane 1 leas",
                    std::string("orvane 1 lease\0", 15), "orvane 1 lease size", "orvane 1 lease =1",
                    "orvane 1 ring", "orvane 1 ring ", "orvane 1 ring 0", "orvane 1 ring -1",
                    "orvane 1 ring 1MiB", "orvane 1 ring 18446744073709551616",
                    "orvane 1 ring 1048576 size", "orvane 2 ring 1048576", std::string(512, '%'),
                    "orvane 1 lease" + std::string(499, ' '), std::string(100000, 'x')),
    [](const auto& test) { return "Number" + std::to_string(test.index); });

TEST_F(LeaseRequestTest, NothingIsRefusedAfterFiveSeconds) {
  start();
  const auto begin = std::chrono::steady_clock::now();
  const LeaseClient silent(socket);
  const LeaseClient other(socket);
  EXPECT_TRUE(other.ask().starts_with("orvane-"));
  EXPECT_EQ(silent.next(), "refused 1007 nothing was asked for in time");
  EXPECT_EQ(silent.next(), kEnd);
  const auto taken = std::chrono::steady_clock::now() - begin;
  EXPECT_GE(taken, std::chrono::milliseconds(4900));
  EXPECT_LT(taken, std::chrono::seconds(8));
}

// The last of them is refused, and the others still may ask.
void connectOneTooMany(const std::string& socket, const std::string& user, std::size_t most) {
  std::vector<std::unique_ptr<LeaseClient>> silent;
  for (std::size_t i = 0; i < most; ++i) {
    silent.push_back(std::make_unique<LeaseClient>(socket));
  }
  const LeaseClient tooMany(socket);
  EXPECT_EQ(tooMany.next(), "refused 1005 user " + user + " has " + std::to_string(most) +
                                " connections that have not asked for anything yet");
  EXPECT_EQ(tooMany.next(), kEnd);
  EXPECT_TRUE(silent.front()->ask().starts_with("orvane-"));
}

TEST_F(LeaseRequestTest, AUserHasOnlySoManyConnectionsThatHaveNotAsked) {
  start({"--pairs-per-user", "31"});
  connectOneTooMany(socket, user, 32);
}

TEST_F(LeaseRequestTest, AllProducersOfAUserMayConnectBeforeTheFirstAsks) {
  start({"--pairs-per-user", "40"});
  connectOneTooMany(socket, user, 40);
}

TEST_F(LeaseRequestTest, WhoLeavesWithoutAskingIsForgotten) {
  start({"--pairs-per-user", "1"});
  LeaseClient silent(socket);
  silent.close();
  EXPECT_TRUE(isLeasedAgain());
}

TEST_F(LeaseRequestTest, AUserHasOnlySoManyPairs) {
  start({"--pairs-per-user", "1"});
  LeasedProducer first(socket);
  const LeaseClient second(socket);
  EXPECT_EQ(second.ask(), tooManyPairs);
  EXPECT_EQ(second.next(), kEnd);
  EXPECT_EQ(first.queues.ask({kOpen}), (Answer{0, ""}));
  first.client.close();
  EXPECT_TRUE(isLeasedAgain());
}

TEST_F(LeaseRequestTest, AConnectionThatHasNotAskedCountsAsAPair) {
  start({"--pairs-per-user", "1"});
  const LeaseClient silent(socket);
  EXPECT_EQ(LeaseClient(socket).ask(), tooManyPairs);
  EXPECT_TRUE(silent.ask().starts_with("orvane-"));
}

TEST_F(LeaseRequestTest, AllPairsTakeOnlySoMuchMemory) {
  // A pair takes 208 + 1 x (24 + 1000) bytes, 208 + 3 x (24 + 136) for the answers, and a page for
  // its totals.
  start({"--messages", "1", "--message-size", "1000", "--shm-limit", "12032"});
  LeasedProducer first(socket);
  LeasedProducer second(socket);
  const LeaseClient third(socket);
  EXPECT_EQ(
      third.ask(),
      "refused 1005 the leases would take 18048 bytes of /dev/shm, of 12032 that they may: end "
      "one, or start orvaned with a larger --shm-limit");
  EXPECT_EQ(third.next(), kEnd);
  EXPECT_EQ(second.queues.ask({kOpen}), (Answer{0, ""}));
  first.client.close();
  EXPECT_TRUE(isLeasedAgain());
}

TEST_F(LeaseRequestTest, KeysThatAreNotKnownAreIgnored) {
  start();
  const LeaseClient queues(socket);
  EXPECT_TRUE(answerTo(queues, "orvane 1 lease colour=green =").starts_with("refused 1007 "));
  const LeaseClient others(socket);
  EXPECT_TRUE(answerTo(others, "orvane 1 lease colour=green size=").starts_with("lease orvane-"));
  const LeaseClient ring(socket);
  const std::string answer = answerTo(ring, "orvane 1 ring 1048576 colour=green a=b=c");
  EXPECT_TRUE(answer.starts_with("ring orvane-") && answer.ends_with(" 1048576")) << answer;
}

class WrongRingSize : public LeaseRequestTest, public testing::WithParamInterface<const char*> {};

// Not with the status upon which a producer asks for queues.
TEST_P(WrongRingSize, IsRefusedWithTheValidSizes) {
  const std::string bytes = GetParam();
  start({"--ring-limit", "1GiB"});
  const LeaseClient client(socket);
  EXPECT_EQ(answerTo(client, "orvane 1 ring " + bytes),
            "refused 1006 a ring has 1048576 to 268435456 bytes, a power of two, and not " + bytes);
  EXPECT_EQ(client.next(), kEnd);
}

INSTANTIATE_TEST_SUITE_P(Of, WrongRingSize,
                         testing::Values("1", "524288", "1048575", "1048577", "3145728",
                                         "536870912", "18446744073709551615"));

TEST_F(LeaseRequestTest, ALargestRingIsGiven) {
  start({"--ring-limit", "1GiB"});
  const LeaseClient client(socket);
  EXPECT_TRUE(answerTo(client, "orvane 1 ring 268435456").ends_with(" 268435456"));
}

TEST_F(LeaseRequestTest, TheRingsOfAUserTakeOnlySoMuchMemory) {
  start({"--ring-limit-per-user", "3MiB"});
  LeaseClient first(socket);
  EXPECT_TRUE(answerTo(first, "orvane 1 ring 2097152").starts_with("ring orvane-"));
  const LeaseClient second(socket);
  EXPECT_EQ(answerTo(second, "orvane 1 ring 2097152"),
            "refused 1005 the rings of user " + user +
                " would take 4194304 bytes, of 3145728 that they may: end one, or start orvaned "
                "with a larger --ring-limit-per-user");
  EXPECT_EQ(second.next(), kEnd);
  const LeaseClient third(socket);
  EXPECT_TRUE(answerTo(third, "orvane 1 ring 1048576").starts_with("ring orvane-"))
      << "all that is allowed";
  const LeaseClient queues(socket);
  EXPECT_TRUE(queues.ask().starts_with("orvane-")) << "queues do not count";
  first.close();
  EXPECT_TRUE(eventually([this] {
    const LeaseClient again(socket);
    return answerTo(again, "orvane 1 ring 2097152").starts_with("ring orvane-");
  }));
}

TEST_F(LeaseRequestTest, AllRingsTakeOnlySoMuchMemory) {
  start({"--ring-limit", "2MiB", "--ring-limit-per-user", "8MiB"});
  const LeaseClient first(socket);
  EXPECT_TRUE(answerTo(first, "orvane 1 ring 2097152").starts_with("ring orvane-"));
  const LeaseClient second(socket);
  EXPECT_EQ(answerTo(second, "orvane 1 ring 1048576"),
            "refused 1005 the rings would take 3145728 bytes, of 2097152 that they may: end one, "
            "or start orvaned with a larger --ring-limit");
}

TEST_F(LeaseRequestTest, AUserHasHalfOfTheRingsMemoryByDefault) {
  start({"--ring-limit", "4MiB"});
  const LeaseClient client(socket);
  EXPECT_EQ(answerTo(client, "orvane 1 ring 4194304"),
            "refused 1005 the rings of user " + user +
                " would take 4194304 bytes, of 2097152 that they may: end one, or start orvaned "
                "with a larger --ring-limit-per-user");
}

// The limit of the size of files holds for a ring's memory as well.
TEST_F(LeaseRequestTest, ARingThatCannotBeAllocatedIsRefusedWithTheSystemsReason) {
  ServerProcess::Setup setup;
  setup.fileSizeLimit = 1 << 20;
  server = std::make_unique<ServerProcess>(arguments(), setup);
  ASSERT_TRUE(server->says("serving leases at ")) << server->output();
  const LeaseClient client(socket);
  EXPECT_EQ(answerTo(client, "orvane 1 ring 8388608"),
            "refused 1006 Cannot allocate a ring's memory: File too large");
  EXPECT_EQ(client.next(), kEnd);
  EXPECT_TRUE(server->isRunning());
}

TEST_F(LeaseRequestTest, AMessageTooLargeForSharedMemoryLeavesNothingBehind) {
  start({"--messages", "4096", "--message-size", "1073741824", "--shm-limit", "8TiB"});
  const LeaseClient client(socket);
  const std::string refusal = client.ask();
  const std::string begin =
      "refused 1006 the queues need 4398047269600 bytes of /dev/shm, which has ";
  const std::string end = ": use fewer or smaller messages, or enlarge it";
  EXPECT_TRUE(refusal.starts_with(begin) && refusal.ends_with(end)) << refusal;
  EXPECT_EQ(client.next(), kEnd);
  const std::string queues = "-" + std::to_string(server->process()) + "_";
  for (const std::string& name : namesIn("/dev/shm")) {
    EXPECT_EQ(name.find(queues), std::string::npos) << name;
  }
}

TEST_F(LeaseRequestTest, AStoreThatVanishedIsTheReasonUntilItIsBack) {
  start();
  fs::remove(store.path());
  const LeaseClient client(socket);
  EXPECT_EQ(client.ask(), "refused 1006 cannot store into " + store.path() +
                              ": No such file or directory: --store needs a folder that exists and "
                              "that the server can write to");
  EXPECT_EQ(client.next(), kEnd);
  fs::create_directory(store.path());
  LeasedProducer producer(socket);
  EXPECT_EQ(producer.queues.ask({kOpen}), (Answer{0, ""}));
}

}  // namespace
}  // namespace orvane::test
