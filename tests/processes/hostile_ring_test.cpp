// A producer that writes into its ring what it may not: its own lease ends, and nothing else.

#include <fcntl.h>

#include <functional>
#include <orvane/orvane.hpp>

#include "ring/raw_ring.hpp"
#include "support/lease_fixture.hpp"

namespace orvane::test {
namespace {

constexpr unsigned int kLeaseTimeout = 60;  // seconds

// A producer with a lease and no writer.
class RawLease {
 public:
  explicit RawLease(const std::string& socket)
      : client(socket), granted(client.askForRing(kRing)), ring(file(0), file(1)) {}

  int file(std::size_t number) const { return granted.files.at(number).get(); }

  std::string name() const {
    const std::size_t begin = std::string("ring ").size();
    return granted.answer.substr(begin, granted.answer.rfind(' ') - begin);
  }

  void send(std::initializer_list<Record> records) {
    ring.publish(BatchBytes().records(records).bytes());
  }

  bool isAnswered(std::uint64_t batches) const {
    return eventually([&] { return ring.servers.get64(kAnswersWritten) == batches; });
  }

  const LeaseClient client;

 private:
  const LeaseClient::Ring granted;

 public:
  RawProducer ring;
};

class HostileRing : public LeaseTest {
 protected:
  HostileRing() { start(); }
};

struct Breach {
  const char* name;
  const char* reason;
  std::function<void(RawLease&)> act;
};

void punchHole(const RawLease& lease, off_t begin, off_t size) {
  orThrow(fallocate(lease.file(0), FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, begin, size),
          "fallocate");
}

constexpr char kTailWrong[] = "its tail is not where it can be";
constexpr char kTooLarge[] = "a frame is larger than what was handed over or may be";
constexpr char kMissing[] = "a frame is missing";
constexpr std::uint64_t kNextFrame = 128;  // after the frame of kOpen and kHello

const Breach kBreaches[] = {
    {"MovesItsTailBack", kTailWrong, [](RawLease& lease) { lease.ring.moveTail(64); }},
    {"MovesItsTailBeyondTheRing", kTailWrong,
     [](RawLease& lease) { lease.ring.moveTail(kNextFrame + kRing + 64); }},
    {"ScribblesOverItsPage", kTailWrong,
     [](RawLease& lease) { std::memset(lease.ring.file.at(0), 0xFF, 4096); }},
    {"PunchesAHoleIntoItsPage", kTailWrong, [](RawLease& lease) { punchHole(lease, 0, 4096); }},
    {"HandsHolesOver", kMissing,
     [](RawLease& lease) {
       lease.ring.write(kNextFrame, 48, 2, Bytes(48, 'x'));
       punchHole(lease, 4096, kRing);
       lease.ring.moveTail(kNextFrame + 64);
     }},
    {"SaysThatAFrameIsLargerThanTheRing", kTooLarge,
     [](RawLease& lease) {
       lease.ring.write(kNextFrame, ~std::uint64_t{0}, 2, {});
       lease.ring.moveTail(kNextFrame + 64);
     }},
    {"RepeatsAFrame", kMissing,
     [](RawLease& lease) {
       lease.ring.write(kNextFrame, 8, 1, Bytes(8, 0));
       lease.ring.moveTail(kNextFrame + 64);
     }},
};

class BrokenRule : public HostileRing, public testing::WithParamInterface<Breach> {};

TEST_P(BrokenRule, EndsTheLeaseAndNoOther) {
  Lease other(socket, kLeaseTimeout, Transport::ring, kSmallestRing);
  RingWriter writer("stream", other.ring(), kLeaseTimeout, kLeaseTimeout, false);
  writer.open();
  RawLease hostile(socket);
  hostile.send({kOpen, kHello});
  ASSERT_TRUE(hostile.isAnswered(1));
  const std::string reason =
      std::string("The producer broke the rules of its ring: ") + GetParam().reason;

  GetParam().act(hostile);

  EXPECT_EQ(hostile.client.next(), "failed 1000 " + reason);
  EXPECT_EQ(hostile.client.next(), kEnd);
  EXPECT_TRUE(
      server->says(" error 1 orvaned::serve: queue " + hostile.name() + ": " + reason + "\n"))
      << server->output();
  EXPECT_EQ(endingOf(hostile.name()), "end=broken\nreason=" + reason + "\n");
  EXPECT_EQ(readFile(folderOf(hostile.name()) + "/segment-000000.part"), "hello");
  writer.close();
  EXPECT_EQ(textOf(other.receipt(kLeaseTimeout)), "receipt stream=" + streamOf(other.queueName()) +
                                                      " records=0 bytes=0 segments=0 end=closed");
}

INSTANTIATE_TEST_SUITE_P(Producer, BrokenRule, testing::ValuesIn(kBreaches),
                         [](const auto& test) { return test.param.name; });

TEST_F(HostileRing, ThatHandsOverWhatIsNoBatchIsAnsweredWithAnErrorAndServedOn) {
  RawLease hostile(socket);
  hostile.ring.publish(Bytes(100, 'x'));
  ASSERT_TRUE(hostile.isAnswered(1));
  EXPECT_EQ(hostile.ring.status(0), 1000);
  hostile.send({kOpen, kClose});
  ASSERT_TRUE(hostile.isAnswered(2));
  EXPECT_EQ(hostile.ring.status(1), 0);
  EXPECT_EQ(hostile.client.next(), "receipt stream=" + streamOf(hostile.name()) +
                                       " records=0 bytes=0 segments=0 end=closed");
}

// Without a nap, the server would take all of the processor.
TEST_F(HostileRing, WhoseReceiptsAreUnreadIsServedOnOnceTheyAreRead) {
  RawLease producer(socket);
  BatchBytes streams;
  for (int i = 0; i < 1000; ++i) {
    streams.records({kOpen, {.type = 3, .seqNo = 2}});
  }
  for (int batch = 0; batch < 8; ++batch) {
    producer.ring.publish(streams.bytes());
  }
  ASSERT_TRUE(server->says("queue " + producer.name() +
                           ": no batch is taken until the producer reads some of its "))
      << server->output();
  EXPECT_LT(producer.ring.servers.get64(kAnswersWritten), 8U);
  for (int i = 0; i < 8000; ++i) {
    ASSERT_TRUE(producer.client.next().starts_with("receipt stream=")) << i;
  }
  EXPECT_TRUE(producer.isAnswered(8));
}

}  // namespace
}  // namespace orvane::test
