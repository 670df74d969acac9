#include <gtest/gtest.h>

#include "support/recording_sink.hpp"
#include "support/stream.hpp"
#include "support/throws.hpp"
#include "support/writer_members.hpp"
#include "texts.hpp"
#include "transports.hpp"

namespace orvane::test {
namespace {

template <typename Transport>
class Open : public testing::Test {};
TYPED_TEST_SUITE(Open, Transports, TransportName);

TYPED_TEST(Open, SendsTheOpenRecordAtOnce) {
  TypeParam stream;
  stream.begin();
  EXPECT_EQ(stream.received(),
            hex("ff00ee11 00000001"
                "00000000 00000000 0000000000000000 0000000000000000 00000001 00000000"
                "00000000 00000000 00000000 aabbccdd"));
  EXPECT_EQ(stream.waiting(), 0U);
}

TYPED_TEST(Open, LetsTheFirstLaterRecordCarryTwo) {
  TypeParam stream;
  stream.open();
  stream.write("a");
  stream.writer->endSegment();
  stream.close();
  const std::vector<Record> records = stream.sent();
  ASSERT_EQ(records.size(), 3U);
  EXPECT_EQ(records[0].seqNo, 2U);
  EXPECT_EQ(records[1].seqNo, 3U);
  EXPECT_EQ(records[2].seqNo, 4U);
}

TYPED_TEST(Open, OfAnOpenWriterHasNoEffect) {
  TypeParam stream;
  stream.open();
  stream.write("a");
  stream.begin();
  EXPECT_EQ(stream.waiting(), 0U);
  stream.write("b");
  EXPECT_EQ(stream.flushed(),
            (std::vector<Record>{{.type = 1, .seqNo = 2, .segmentDone = 0, .data = bytesOf("a")},
                                 {.type = 1, .seqNo = 3, .segmentDone = 0, .data = bytesOf("b")}}));
}

TEST(Open, SendsRecordsOfTheCallerInFrontOfItsOwn) {
  Stream stream;
  const pvk_shm_message_t early = recordHeader(9, 0);
  stream.writer.write_data(&early, nullptr, 0, false);
  stream.writer.open();
  EXPECT_EQ(stream.sent(), (std::vector<Record>{{.type = 9}, {.type = 0}}));
}

TYPED_TEST(Open, AfterCloseStartsANewStreamWithItsCountersReset) {
  TypeParam stream;
  stream.open();
  stream.write("a");
  stream.writer->endSegment();
  stream.write("b");
  stream.close();
  EXPECT_EQ(stream.sent().back().segmentNo, 1U);
  stream.begin();
  EXPECT_EQ(stream.sent(), (std::vector<Record>{{.type = 0}}));
  stream.write("c");
  EXPECT_EQ(stream.flushed(),
            (std::vector<Record>{
                {.type = 1, .seqNo = 2, .segmentNo = 0, .segmentDone = 0, .data = bytesOf("c")}}));
}

TYPED_TEST(Open, KeepsTheFirstAndThirdParameterOfTheStreamBefore) {
  TypeParam stream;
  stream.open();
  stream.writer->setSegmentAlg(kOrvaneSegUnbounded, 11, 22, 33);
  stream.close();
  EXPECT_EQ(stream.sent(), (std::vector<Record>{{.type = 3,
                                                 .seqNo = 2,
                                                 .segAlg = 1,
                                                 .segParam1 = 11,
                                                 .segParam2 = 22,
                                                 .segParam3 = 33}}));
  stream.begin();
  EXPECT_EQ(stream.sent(),
            (std::vector<Record>{
                {.type = 0, .segAlg = 0, .segParam1 = 11, .segParam2 = 0, .segParam3 = 33}}));
}

TYPED_TEST(Open, LeavesTheSegmentAlgorithmForLaterRecordsAlone) {
  TypeParam stream;
  stream.writer->setSegmentAlg(kOrvaneSegUnbounded, 11, 22, 33);
  stream.begin();
  EXPECT_EQ(stream.sent(), (std::vector<Record>{{.type = 0}}));
  stream.writer->endSegment();
  EXPECT_EQ(stream.flushed(), (std::vector<Record>{{.type = 2,
                                                    .seqNo = 2,
                                                    .segAlg = 1,
                                                    .segParam1 = 11,
                                                    .segParam2 = 22,
                                                    .segParam3 = 33}}));
}

TYPED_TEST(Open, ResetsEveryFieldButTwoParametersAndTheMagic) {
  TypeParam stream;
  pvk_shm_message_t& header = headerOf(*stream.writer);
  header.type = 1;
  header.len = 2;
  header.seqNo = 3;
  header.segmentNo = 4;
  header.segmentDone = 0;
  header.segAlg = 6;
  header.segParam1 = 7;
  header.segParam2 = 8;
  header.segParam3 = 9;
  header.magic = 10;
  stream.begin();
  EXPECT_EQ(stream.sent(),
            (std::vector<Record>{{.type = 0, .segParam1 = 7, .segParam3 = 9, .magic = 10}}));
}

TEST(Open, WaitsForTheWritersTimeout) {
  Stream stream({.timeout = 1});
  stream.pair.fill();
  EXPECT_TRUE(throwsErrno(15, "Timed out after waiting 1s to send data to orvaned on stream stream",
                          [&] { stream.writer.open(); }));
}

TEST(Open, ThatTimesOutLeavesTheWriterClosedAndItsRecordInTheBatch) {
  Stream stream({.timeout = 1});
  stream.pair.fill();
  EXPECT_ANY_THROW(stream.writer.open());
  EXPECT_TRUE(throwsErrno(44, kNotOpen, [&] { stream.write("a"); }));
  stream.pair.discardAll();
  stream.writer.open();
  EXPECT_EQ(stream.sent(), (std::vector<Record>{{.type = 0}, {.type = 0}}));
  stream.writer.endSegment();
  EXPECT_EQ(stream.flushed().at(0).seqNo, 2U);
}

TEST(Open, AnsweredWithAnErrorLeavesTheWriterClosedAndMayBeRepeated) {
  Stream stream;
  stream.pair.post(1001, "no space left");
  EXPECT_TRUE(throwsErrno(1001, "no space left", [&] { stream.writer.open(); }));
  EXPECT_TRUE(throwsErrno(44, kNotOpen, [&] { stream.write("a"); }));
  EXPECT_EQ(stream.sent(), (std::vector<Record>{{.type = 0}}));
  stream.writer.stop(false);
  EXPECT_EQ(stream.sent(), (std::vector<Record>{{.type = 4, .seqNo = 1}}));
  stream.writer.open();
  EXPECT_EQ(stream.sent(), (std::vector<Record>{{.type = 0}}));
  EXPECT_NO_THROW(stream.write("a"));
}

TEST(Open, TracesTheQueueNameBeforeItWrites) {
  Stream stream;
  RecordingSink sink(RecordingSink::Tracing::on);
  stream.writer.open();
  EXPECT_EQ(
      sink.take(),
      (std::vector{
          entered("open"), traced("ShmWriter:open: orvane msgQueueName is " + stream.pair.name()),
          entered("write_data"), traced("write_data: write header.type =0, len=0, timeout=7s"),
          traced("flush_shm_buffer: Sending shm batch of 1"), left("write_data"), left("open")}));
}

TYPED_TEST(Open, OfAnOpenWriterOnlyTracesItsScope) {
  TypeParam stream;
  stream.open();
  RecordingSink sink(RecordingSink::Tracing::on);
  stream.begin();
  EXPECT_EQ(sink.take(), (std::vector{entered("open"), left("open")}));
}

}  // namespace
}  // namespace orvane::test
