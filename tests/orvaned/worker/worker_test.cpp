// What is refused, how a stream breaks, and how often the worker looks.

#include "worker/worker.hpp"

#include <gtest/gtest.h>

#include "support/served.hpp"

namespace orvane::test::worker {
namespace {

using std::chrono::microseconds;

using Answers = std::vector<Answer>;
using Names = std::vector<std::string>;

const Record kOpen{.type = 0, .seqNo = 0};
const Record kData{.type = 1, .seqNo = 2, .segmentDone = 0, .data = bytesOf("data")};
const Record kLater{.type = 1, .seqNo = 3, .segmentDone = 0, .data = bytesOf("more")};
const Record kClose{.type = 3, .seqNo = 4};
const Record kStop{.type = 4, .seqNo = 4};

constexpr char kBadMagic[] =
    "Could not deserialize ShmBatch::MetaData from buffer because the magic value 1920295522 is "
    "corrupt (expected=4278251025)";

const Answer kRepeated{1001,
                       "sequence number out of order: expected above 2, got 2: two producers on "
                       "one queue look like this"};

class RefusalTest : public testing::Test {
 protected:
  void breakStream() { EXPECT_EQ(served.ask({kOpen, kData, kData}), Answers{kRepeated}); }

  Served served;
};

TEST_F(RefusalTest, AMessageThatIsNoBatchIsAnsweredAndLoggedOnce) {
  EXPECT_EQ(served.ask(bytesOf("rubbish!")), (Answers{{1000, kBadMagic}}));
  EXPECT_EQ(served.stored(), Names{});
  const std::vector<Line> expected = {{ox::Kind::error, 1000,
                                       "worker::takeBatch: queue QUEUE: Could not deserialize "
                                       "ShmBatch::MetaData from buffer because the "
                                       "magic value 1920295522 is corrupt (expected=4278251025)"}};
  EXPECT_EQ(served.log(), expected);
}

TEST_F(RefusalTest, BadBatchesAreCounted) {
  served.ask(bytesOf("rubbish!"));
  served.ask({kOpen, kClose});
  served.ask(bytesOf("rubbish!"));
  served.log();
  served.worker().finish(kStopped);
  const std::vector<Line> expected = {{ox::Kind::warning, 1000,
                                       "worker::finish: queue QUEUE: 2 bad batches were refused in "
                                       "all"}};
  EXPECT_EQ(served.log(), expected);
}

TEST_F(RefusalTest, ABadBatchIsRefusedWhole) {
  served.ask({kOpen});
  // The second record's magic word is damaged; the first is good.
  const Bytes damaged = BatchBytes().records({kData, kLater}).flip(8 + 48 + 4 + 47, 1).bytes();
  const Answers answers = served.ask(damaged);
  ASSERT_EQ(answers.size(), 1U);
  EXPECT_EQ(answers[0].status, 1000);
  EXPECT_EQ(served.filesOf(0), Names{"manifest"});
}

TEST_F(RefusalTest, ABatchThatClaimsMoreThanItHoldsIsRefused) {
  served.ask({kOpen});
  for (const Bytes& lie : {BatchBytes().records({kData}).put32(4, 2).bytes(),
                           BatchBytes().records({kData}).put32(12, 5).bytes(),
                           BatchBytes().records({kData}).cut(30).bytes(), Bytes{}}) {
    const Answers answers = served.ask(lie);
    ASSERT_EQ(answers.size(), 1U);
    EXPECT_EQ(answers[0].status, 1000);
  }
}

TEST_F(RefusalTest, ABadBatchBreaksTheOpenStream) {
  served.ask({kOpen, kData});
  EXPECT_EQ(served.ask(bytesOf("rubbish!")), (Answers{{1000, kBadMagic}}));
  EXPECT_EQ(served.endOf(0),
            "end=broken\nreason=Could not deserialize ShmBatch::MetaData from buffer "
            "because the magic value 1920295522 is corrupt (expected=4278251025)\n");
  EXPECT_EQ(served.file(0, "segment-000000.part"), "data");
}

TEST_F(RefusalTest, ABadBatchWithoutAStreamBreaksNothing) {
  served.ask(bytesOf("rubbish!"));
  EXPECT_EQ(served.ask({kOpen, kData, kClose}),
            (Answers{{0, "receipt stream=RUN_0 records=1 bytes=4 segments=1 end=closed"}}));
}

TEST_F(RefusalTest, ARecordOutOfOrderBreaksTheStream) {
  breakStream();
  EXPECT_EQ(served.file(0, "segment-000000.part"), "data");
  EXPECT_EQ(served.manifest(0),
            "format=2\n"
            "queue=QUEUE\n"
            "stream=RUN_0\n"
            "begun=TIME\n"
            "segment number=0 records=1 bytes=4 algorithm=0 parameters=0,0,0 "
            "crc32=adf3f363 file=segment-000000.part\n"
            "other-records=0 bytes=0 crc32=00000000\n"
            "skipped=0\n"
            "receipt stream=RUN_0 records=1 bytes=4 segments=1 end=broken\n"
            "records=1\n"
            "bytes=4\n"
            "end=broken\n"
            "reason=sequence number out of order: expected above 2, got 2: two producers on one "
            "queue look like this\n");
}

TEST_F(RefusalTest, ABrokenStreamAnswersEachBatchWithItsError) {
  breakStream();
  served.log();
  EXPECT_EQ(served.ask({kLater}), Answers{kRepeated});
  EXPECT_EQ(served.ask({}), Answers{kRepeated});
  EXPECT_EQ(served.ask({kLater, kLater}), Answers{kRepeated});
  EXPECT_EQ(served.log(), std::vector<Line>{});
  EXPECT_EQ(served.stored(), Names{"QUEUE-RUN_0"});
  EXPECT_EQ(served.file(0, "segment-000000.part"), "data");
}

TEST_F(RefusalTest, TheFirstErrorOfABatchIsItsAnswer) {
  Record misplaced = kLater;
  misplaced.segmentNo = 9;
  served.ask({kOpen, kData});
  EXPECT_EQ(served.ask({misplaced, kData}),
            (Answers{{1002, "a record of segment 9 came before segment 0 was ended"}}));
}

TEST_F(RefusalTest, TheFirstErrorOfABatchWithoutAStreamIsItsAnswer) {
  EXPECT_EQ(served.ask({{.type = 4, .data = bytesOf("data")}, {.type = 3, .data = bytesOf("da")}}),
            (Answers{{1002, "a record of type 4 has 4 data bytes; it may have none"}}));
}

TEST_F(RefusalTest, TheCloseOfABrokenStreamIsAnsweredWithItsError) {
  breakStream();
  EXPECT_EQ(served.ask({kClose}), Answers{kRepeated});
  const Answers receipt = {{0, "receipt stream=RUN_0 records=1 bytes=4 segments=1 end=broken"}};
  EXPECT_EQ(served.ask({kClose}), receipt);
  EXPECT_EQ(served.ask({}), receipt);
}

TEST_F(RefusalTest, TheStopOfABrokenStreamIsAnsweredWithItsError) {
  breakStream();
  EXPECT_EQ(served.ask({kStop}), Answers{kRepeated});
  EXPECT_EQ(served.ask({kStop}),
            (Answers{{0, "receipt stream=RUN_0 records=1 bytes=4 segments=1 end=broken"}}));
}

TEST_F(RefusalTest, TheNextOpenIsServedAfterABrokenStream) {
  breakStream();
  EXPECT_EQ(served.ask({kOpen}), (Answers{{0, ""}}));
  EXPECT_EQ(served.ask({kData, kClose}),
            (Answers{{0, "receipt stream=RUN_1 records=1 bytes=4 segments=1 end=closed"}}));
}

TEST_F(RefusalTest, WhatWasRefusedInFrontOfAnOpenIsStillReported) {
  breakStream();
  EXPECT_EQ(served.ask({kLater, kOpen}), Answers{kRepeated});
  EXPECT_EQ(served.ask({kData, kClose}),
            (Answers{{0, "receipt stream=RUN_1 records=1 bytes=4 segments=1 end=closed"}}));
}

TEST_F(RefusalTest, AWriterIsThrownTheError) {
  ShmWriter writer("stream", served.queue(), 5, 5, false);
  writer.open();
  served.send(bytesOf("rubbish!"));
  served.worker().runOnce();
  served.worker().runOnce();
  writer.writeSegment(reinterpret_cast<const unsigned char*>("data"), 4);
  try {
    writer.flush_shm_buffer(5);
    FAIL() << "nothing was thrown";
  } catch (const Ox_ErrnoException& e) {
    EXPECT_EQ(e.status(), 1000);
    EXPECT_STREQ(e.what(), kBadMagic);
  }
}

TEST_F(RefusalTest, AControlRecordHasNoData) {
  const auto refusal = [](int type) {
    return Answers{
        {1002, "a record of type " + std::to_string(type) + " has 4 data bytes; it may have none"}};
  };
  EXPECT_EQ(served.ask({{.type = 0, .data = bytesOf("data")}}), refusal(0));
  EXPECT_EQ(served.ask({{.type = 3, .data = bytesOf("data")}}), refusal(3));
  EXPECT_EQ(served.ask({{.type = 4, .data = bytesOf("data")}}), refusal(4));
  EXPECT_EQ(served.stored(), Names{});
  served.ask({kOpen});
  EXPECT_EQ(served.ask({{.type = 2, .seqNo = 2, .data = bytesOf("data")}}), refusal(2));
}

TEST_F(RefusalTest, ACloseWithDataBreaksTheStream) {
  served.ask({kOpen, kData});
  EXPECT_EQ(served.ask({{.type = 3, .seqNo = 3, .data = bytesOf("data")}}),
            (Answers{{1002, "a record of type 3 has 4 data bytes; it may have none"}}));
  EXPECT_EQ(served.endOf(0),
            "end=broken\nreason=a record of type 3 has 4 data bytes; it may have none\n");
}

TEST_F(RefusalTest, ACloseWithDataEndsABrokenStreamAsAnyCloseDoes) {
  breakStream();
  EXPECT_EQ(served.ask({{.type = 3, .seqNo = 3, .data = bytesOf("data")}}), Answers{kRepeated});
  EXPECT_EQ(served.ask({kClose}),
            (Answers{{0, "receipt stream=RUN_0 records=1 bytes=4 segments=1 end=broken"}}));
}

TEST_F(RefusalTest, ACloseOutOfOrderBreaksTheStream) {
  served.ask({kOpen, kData});
  EXPECT_EQ(served.ask({{.type = 3, .seqNo = 1}}),
            (Answers{{1001,
                      "sequence number out of order: expected above 2, got 1: two producers on one "
                      "queue look like this"}}));
  EXPECT_EQ(served.endOf(0),
            "end=broken\nreason=sequence number out of order: expected above 2, got 1: two "
            "producers on one queue look like this\n");
}

TEST_F(RefusalTest, AFullResponseQueueCostsNoError) {
  for (int i = 0; i < 12; ++i) {  // depth 8 + 2, and two that find no room
    served.send({});
    served.worker().runOnce();
  }
  served.send(bytesOf("rubbish!"));
  served.worker().runOnce();
  EXPECT_EQ(served.answers(), Answers(10, Answer{0, ""}));
  EXPECT_FALSE(served.worker().runOnce());
  EXPECT_EQ(served.answers(), (Answers{{1000, kBadMagic}}));
}

TEST(Pause, DoublesFrom50MicrosecondsTo5Milliseconds) {
  orvaned::Pause pause;
  std::vector<microseconds> pauses;
  for (int i = 0; i < 9; ++i) {
    pauses.push_back(pause.next());
  }
  using std::chrono_literals::operator""us;
  EXPECT_EQ(pauses, (std::vector<microseconds>{50us, 100us, 200us, 400us, 800us, 1600us, 3200us,
                                               5000us, 5000us}));
  pause.reset();
  EXPECT_EQ(pause.next(), 50us);
}

TEST(Step, LooksAtOnceAfterAMessageAndThenSoon) {
  using std::chrono_literals::operator""us;
  Served served;
  EXPECT_EQ(served.worker().step(), 50us);
  EXPECT_EQ(served.worker().step(), 100us);
  served.send({});
  EXPECT_EQ(served.worker().step(), 0us);
  EXPECT_EQ(served.worker().step(), 50us);
}

TEST(Run, EndsWhenItIsToStop) {
  Served served;
  served.send({kOpen, kData});
  EXPECT_EQ(&served.worker().run([](std::chrono::microseconds) { return &kStopped; }), &kStopped);
  EXPECT_EQ(served.answers(), (Answers{{1004, kStoppedNotice}, {0, ""}}));
}

TEST(WorkersLog, DoesNotTakeItsQueuesNameForAFormat) {
  const orvane::test::TempFolder folder;
  const orvane::test::QueueName name(orvane::test::uniqueQueueName());
  const orvane::test::QueueName response(name.text() + "Response");
  orvaned::QueuePair queues(name.text(), {1, 1024, 0600});
  orvaned::Store store(folder.path(), name.text(), orvaned::Sync::none);
  orvaned::Worker worker("%n%s", queues, store);
  boost::interprocess::message_queue send(boost::interprocess::open_only, name.text().c_str());
  orvane::test::RecordingSink sink;
  send.send("rubbish!", 8, 1);
  worker.runOnce();
  const std::vector<Line> expected = {
      {ox::Kind::error, 1000, std::string("worker::takeBatch: queue %n%s: ") + kBadMagic}};
  EXPECT_EQ(sink.take(), expected);
}

}  // namespace
}  // namespace orvane::test::worker
