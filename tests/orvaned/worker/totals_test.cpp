// What the server counts, and publishes.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <csignal>
#include <ctime>
#include <filesystem>

#include "support/lease_fixture.hpp"
#include "support/served.hpp"
#include "support/totals_reader.hpp"

namespace orvane::test {
namespace {

// By the offsets of their drawing.
struct Totals {
  std::uint64_t batches = 0;
  std::uint64_t records = 0;
  std::uint64_t bytes = 0;
  std::uint64_t segments = 0;
  std::uint64_t streams = 0;
  std::uint64_t badBatches = 0;
  std::uint64_t errorAnswers = 0;

  bool operator==(const Totals&) const = default;
};

std::ostream& operator<<(std::ostream& stream, const Totals& totals) {
  return stream << totals.batches << " batches, " << totals.records << " records, " << totals.bytes
                << " bytes, " << totals.segments << " segments, " << totals.streams << " streams, "
                << totals.badBatches << " bad, " << totals.errorAnswers << " errors";
}

Totals totalsOf(const std::string& queue) {
  return {publishedNumber(queue, 64), publishedNumber(queue, 72), publishedNumber(queue, 80),
          publishedNumber(queue, 88), publishedNumber(queue, 96), publishedNumber(queue, 104),
          publishedNumber(queue, 112)};
}

std::uint64_t nanosecondsNow() {
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * 1000000000 +
         static_cast<std::uint64_t>(now.tv_nsec);
}

class TotalsTest : public testing::Test {
 protected:
  Totals totals() const { return totalsOf(served.queue()); }

  const Record more{.type = 1, .seqNo = 4, .segmentNo = 1, .data = bytesOf("more")};
  Served served;
};

TEST_F(TotalsTest, AreThoseOfTheReceipts) {
  EXPECT_EQ(totals(), Totals{});
  served.ask({kOpen, kHello});
  EXPECT_EQ(totals(), (Totals{.batches = 1, .records = 1, .bytes = 5, .streams = 1}));
  served.ask({kEndOfSegment});
  EXPECT_EQ(totals(),
            (Totals{.batches = 2, .records = 1, .bytes = 5, .segments = 1, .streams = 1}));
  const Record own{.type = 17, .seqNo = 9, .data = bytesOf("own")};
  EXPECT_EQ(
      served.ask({more, own, kClose}),
      (std::vector<Answer>{{0, "receipt stream=RUN_0 records=3 bytes=12 segments=2 end=closed"}}));
  EXPECT_EQ(totals(),
            (Totals{.batches = 3, .records = 3, .bytes = 12, .segments = 2, .streams = 1}));
  served.ask({kOpen, kHello, kStop});
  EXPECT_EQ(totals(),
            (Totals{.batches = 4, .records = 4, .bytes = 17, .segments = 3, .streams = 2}));
}

TEST_F(TotalsTest, CountNoSegmentWithoutDataAndNoStreamTwice) {
  served.ask({kOpen});
  served.ask({kOpen, {.type = 2, .seqNo = 2}});
  served.ask({{.type = 1, .seqNo = 3, .data = {}}, {.type = 2, .seqNo = 4}});
  EXPECT_EQ(
      served.ask({{.type = 3, .seqNo = 5}}),
      (std::vector<Answer>{{0, "receipt stream=RUN_0 records=1 bytes=0 segments=0 end=closed"}}));
  EXPECT_EQ(totals(), (Totals{.batches = 4, .records = 1, .streams = 1}));
}

TEST_F(TotalsTest, CountTheStreamThatIsCutOffAndItsSegment) {
  served.ask({kOpen, kHello});
  served.ask({kOpen});
  EXPECT_EQ(totals(),
            (Totals{.batches = 2, .records = 1, .bytes = 5, .segments = 1, .streams = 2}));
}

TEST_F(TotalsTest, CountRecordsOutsideAStream) {
  served.ask({kHello});
  EXPECT_EQ(totals(), (Totals{.batches = 1, .records = 1, .bytes = 5}));
}

TEST_F(TotalsTest, CountBadBatchesAndErrorAnswers) {
  EXPECT_EQ(served.ask(bytesOf("rubbish")).at(0).status, 1000);
  EXPECT_EQ(totals(), (Totals{.batches = 1, .badBatches = 1, .errorAnswers = 1}));
  served.ask({kOpen, kHello});
  EXPECT_EQ(served.ask({kHello}).at(0).status, 1001);
  EXPECT_EQ(served.ask({kEndOfSegment}).at(0).status, 1001);
  EXPECT_EQ(totals(), (Totals{.batches = 4,
                              .records = 1,
                              .bytes = 5,
                              .segments = 1,
                              .streams = 1,
                              .badBatches = 1,
                              .errorAnswers = 3}));
}

TEST_F(TotalsTest, CountNoStreamThatCannotBegin) {
  std::filesystem::remove(served.store());
  EXPECT_EQ(served.ask({kOpen, kHello}).at(0).status, 1003);
  EXPECT_EQ(totals(), (Totals{.batches = 1, .errorAnswers = 1}));
  EXPECT_EQ(publishedStream(served.queue()), "");
}

TEST_F(TotalsTest, NameTheOpenStreamUntilItEnds) {
  EXPECT_EQ(publishedStream(served.queue()), "");
  served.ask({kOpen});
  const std::string stream = publishedStream(served.queue());
  EXPECT_EQ(served.pathOf(0), served.store() + "/" + served.queue() + "-" + stream);
  served.ask({kHello, kClose});
  EXPECT_EQ(publishedStream(served.queue()), "");
  served.ask({kOpen});
  EXPECT_EQ(served.pathOf(1),
            served.store() + "/" + served.queue() + "-" + publishedStream(served.queue()));
  served.ask(bytesOf("rubbish"));  // breaks it
  EXPECT_EQ(publishedStream(served.queue()), "");
}

// The data of the open stream's segments, once its batch is stored.
TEST_F(TotalsTest, TellHowMuchOfTheOpenStreamWasAnswered) {
  const auto answered = [&] { return publishedNumber(served.queue(), 200); };
  EXPECT_EQ(answered(), 0U);
  served.ask({kOpen, kHello});
  EXPECT_EQ(answered(), 5U);
  served.ask({kEndOfSegment, more, {.type = 17, .seqNo = 9, .data = bytesOf("own")}});
  EXPECT_EQ(answered(), 9U);
  served.ask({kOpen});
  EXPECT_EQ(answered(), 0U);
  served.ask({kHello});
  EXPECT_EQ(answered(), 5U);
  served.ask({kClose, kOpen, kHello, kHello});  // the stream breaks before its batch is stored
  EXPECT_EQ(answered(), 0U);
  served.ask({kOpen});
  std::filesystem::remove_all(served.pathOf(3));
  EXPECT_EQ(served.ask({kHello}).at(0).status, 1003);
  EXPECT_EQ(answered(), 0U);
}

TEST_F(TotalsTest, TellWhenTheLastBatchCame) {
  served.serve();
  EXPECT_EQ(publishedNumber(served.queue(), 120), 0U);
  const std::uint64_t before = nanosecondsNow();
  served.ask({kOpen});
  const std::uint64_t first = publishedNumber(served.queue(), 120);
  EXPECT_GE(first, before);
  EXPECT_LE(first, nanosecondsNow());
  served.ask(bytesOf("rubbish"));
  EXPECT_GT(publishedNumber(served.queue(), 120), first);
}

// Of the real server.
class PublishedTotals : public LeaseTest {
 protected:
  void startFixed() {
    start({"--queue", name});
    ASSERT_TRUE(server->says("serving queue " + name + " "));
  }

  const QueueName nameGuard{uniqueQueueName()};
  const QueueName responseGuard{nameGuard.text() + "Response"};
  const QueueName lockGuard{"." + nameGuard.text() + ".lock"};
  const QueueName totalsGuard{"." + nameGuard.text() + ".stats"};
  const std::string& name = nameGuard.text();
};

TEST_F(PublishedTotals, NameTheServerAndTheWorkerOfEachPair) {
  startFixed();
  LeasedProducer leased(socket);
  for (const std::string& queue : {name, leased.name}) {
    EXPECT_EQ(publishedNumber(queue, 16), static_cast<std::uint64_t>(server->process()));
    EXPECT_EQ(publishedNumber(queue, 24), static_cast<std::uint64_t>(server->workerOf(queue)));
  }
  EXPECT_EQ(Producer(name).ask({kOpen, kHello}), (Answer{0, ""}));
  EXPECT_EQ(totalsOf(name), (Totals{.batches = 1, .records = 1, .bytes = 5, .streams = 1}));
  EXPECT_EQ(totalsOf(leased.name), Totals{});
}

TEST_F(PublishedTotals, GoWithThePair) {
  startFixed();
  LeasedProducer leased(socket);
  EXPECT_TRUE(std::filesystem::exists("/dev/shm/." + leased.name + ".stats"));
  leased.client.close();
  EXPECT_TRUE(eventually([&] { return sharedMemoryOf(leased.name).empty(); }));
  EXPECT_TRUE(std::filesystem::exists("/dev/shm/." + name + ".stats"));
  server->signal(SIGTERM);
  EXPECT_EQ(server->wait(), 0);
  EXPECT_EQ(sharedMemoryOf(name), Words{});
}

TEST_F(PublishedTotals, BeginAnewWithTheNextWorker) {
  startFixed();
  EXPECT_EQ(Producer(name).ask({kOpen, kHello}), (Answer{0, ""}));
  const pid_t first = server->workerOf(name);
  kill(first, SIGKILL);
  ASSERT_TRUE(server->says("serving queue " + name + " ", 2));
  EXPECT_EQ(totalsOf(name), Totals{});
  EXPECT_NE(publishedNumber(name, 24), static_cast<std::uint64_t>(first));
  EXPECT_EQ(publishedStream(name), "");
}

TEST_F(PublishedTotals, OfAKilledServerAreReplacedByTheNext) {
  startFixed();
  EXPECT_EQ(Producer(name).ask({kOpen, kHello}), (Answer{0, ""}));
  server->killAll();
  EXPECT_EQ(server->wait(), -SIGKILL);
  EXPECT_EQ(totalsOf(name).batches, 1U);
  startFixed();
  EXPECT_EQ(totalsOf(name), Totals{});
  EXPECT_EQ(publishedNumber(name, 16), static_cast<std::uint64_t>(server->process()));
}

TEST_F(PublishedTotals, CannotBeWhereSomethingElseIs) {
  const std::string path = "/dev/shm/." + name + ".stats";
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  ServerProcess refused({"--queue", name, "--store", store.path()});
  EXPECT_EQ(refused.wait(), 1);
  EXPECT_EQ(refused.output(), "TIME error 1 orvaned::main: " + path +
                                  " is in the way: it is no queue: remove it, or take another "
                                  "name\n");
  EXPECT_TRUE(std::filesystem::is_fifo(path));
}

}  // namespace
}  // namespace orvane::test
