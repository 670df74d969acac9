// What the store knows of a stream's producer and its label, and how it calls the stream.

#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <optional>
#include <orvane/orvane.hpp>

#include "store_format/manifest.hpp"
#include "support/lease_fixture.hpp"
#include "support/queue_pair.hpp"
#include "support/text.hpp"

namespace orvane::test {
namespace {

constexpr unsigned int kPatience = 60;  // seconds

// This process, as the server sees it.
tool::Producer thisProcess() {
  const std::string program = std::filesystem::read_symlink("/proc/self/exe").filename();
  return {geteuid(), getegid(), getpid(), program};
}

class StreamOrigin : public LeaseTest, public testing::WithParamInterface<Transport> {
 protected:
  StreamOrigin() { start(); }

  Lease newLease(const std::string& label = "") const {
    return {socket, kPatience, GetParam(), kSmallestRing, label};
  }

  // Stores a stream; returns its receipt.
  static Receipt storeOne(Lease& lease) {
    const auto writer = makeWriter("stream", lease, kPatience, kPatience);
    writer->open();
    writer->writeSegment(reinterpret_cast<const unsigned char*>("hello"), 5);
    writer->close();
    return lease.receipt(kPatience);
  }

  tool::Manifest manifestOf(const std::string& queue) const {
    return tool::readManifest(folderOf(queue) + "/manifest");
  }
};

TEST_P(StreamOrigin, IsInTheManifestAndTheLabelInTheId) {
  Lease lease = newLease("daily backup/1");
  const tool::UtcTime before = tool::utcNow();
  const Receipt receipt = storeOne(lease);
  const tool::Manifest manifest = manifestOf(lease.queueName());
  EXPECT_EQ(manifest.head.producer, thisProcess());
  EXPECT_EQ(manifest.head.label, "daily backup/1");
  EXPECT_EQ(manifest.head.stream, receipt.stream);
  ASSERT_TRUE(manifest.head.begun && manifest.ending.ended);
  EXPECT_LE(before, *manifest.head.begun);
  EXPECT_LE(*manifest.head.begun, *manifest.ending.ended);
  EXPECT_LE(*manifest.ending.ended, tool::utcNow());
  EXPECT_TRUE(receipt.stream.starts_with(tool::utcTextForNames(*manifest.head.begun) + "-"));
  EXPECT_EQ(namesIn(store.path()), Words{socketName() + "-daily_backup_1-" + receipt.stream});
}

TEST_P(StreamOrigin, IsInEachManifestOfALease) {
  Lease lease = newLease("app.log");
  Words ids;
  for (int stream = 0; stream < 3; ++stream) {
    ids.push_back(socketName() + "-app.log-" + storeOne(lease).stream);
  }
  EXPECT_EQ(namesIn(store.path()), ids);
  for (const std::string& id : ids) {
    const tool::Manifest manifest = tool::readManifest(store.path() + "/" + id + "/manifest");
    EXPECT_EQ(manifest.head.label, "app.log");
    EXPECT_EQ(manifest.head.producer, thisProcess());
  }
}

TEST_P(StreamOrigin, HasNoLabelIfTheLeaseHasNone) {
  Lease lease = newLease();
  const Receipt receipt = storeOne(lease);
  EXPECT_EQ(manifestOf(lease.queueName()).head.label, "");
  EXPECT_FALSE(contains(readFile(folderOf(lease.queueName()) + "/manifest"), "label="));
  EXPECT_EQ(namesIn(store.path()), Words{socketName() + "-" + receipt.stream});
}

INSTANTIATE_TEST_SUITE_P(Over, StreamOrigin, testing::Values(Transport::queue, Transport::ring),
                         [](const auto& test) {
                           return test.param == Transport::ring ? "Ring" : "Queue";
                         });

class UnfinishedStreamOrigin : public LeaseTest {
 protected:
  UnfinishedStreamOrigin() {
    start();
    client.emplace(socket);
    client->send("orvane 1 lease label=app%20log");
    queue = client->next().substr(std::string("lease ").size());
    EXPECT_EQ(Producer(queue).ask({kOpen, kHello}), (Answer{0, ""}));
  }

  void expectOrigin(const std::string& reason) const {
    const std::string path = folderOf(queue) + "/manifest";
    ASSERT_TRUE(eventually([&] { return std::filesystem::exists(path); }));
    const tool::Manifest manifest = tool::readManifest(path);
    EXPECT_EQ(manifest.head.producer, thisProcess());
    EXPECT_EQ(manifest.head.label, "app log");
    EXPECT_TRUE(manifest.head.begun);
    EXPECT_EQ(manifest.ending.reason, reason);
  }

  std::optional<LeaseClient> client;
  std::string queue;
};

TEST_F(UnfinishedStreamOrigin, IsStillKnownWhenTheServerDied) {
  server->killAll();
  EXPECT_EQ(server->wait(), -SIGKILL);
  start();
  expectOrigin("the server died");
}

TEST_F(UnfinishedStreamOrigin, IsStillKnownWhenTheWorkerDied) {
  kill(server->workerOf(queue), SIGKILL);
  expectOrigin("its worker died");
}

class FixedQueueOrigin : public LeaseTest {};

TEST_F(FixedQueueOrigin, IsNotKnown) {
  const QueueName name(uniqueQueueName());
  const QueueName response(name.text() + "Response");
  start({"--queue", name.text()});
  ASSERT_TRUE(server->says("serving queue " + name.text() + " "));
  Producer producer(name.text());
  EXPECT_EQ(producer.ask({kOpen, kHello, kEndOfSegment, kClose}).status, 0);
  const tool::Manifest manifest = tool::readManifest(folderOf(name.text()) + "/manifest");
  EXPECT_EQ(manifest.head.producer, std::nullopt);
  EXPECT_EQ(manifest.head.label, "");
  EXPECT_EQ(namesIn(store.path()), Words{name.text() + "-" + manifest.head.stream});
}

// What clients of other releases send, and what they get.
TEST_F(LeaseTest, RequestsOfOtherReleasesAreUnderstood) {
  start();
  const std::pair<const char*, const char*> requests[] = {
      {"orvane 1 lease", "lease orvane-"},
      {"orvane 1 lease color=blue", "lease orvane-"},
      {"orvane 1 lease label=app.log color=blue", "lease orvane-"},
      {"orvane 1 ring 1048576 label=50%25", "ring orvane-"},
      {"orvane 1 lease label=50%", "refused 1007 "},
      {"orvane 1 lease label=a%41", "refused 1007 "}};
  for (const auto& [request, reply] : requests) {
    const LeaseClient client(socket);
    client.send(request);
    const LeaseClient::Ring answer = client.nextWithFiles();
    EXPECT_TRUE(answer.answer.starts_with(reply)) << request << ": " << answer.answer;
  }
}

}  // namespace
}  // namespace orvane::test
