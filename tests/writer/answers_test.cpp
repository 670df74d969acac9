#include <gtest/gtest.h>

#include <boost/interprocess/exceptions.hpp>

#include "support/stream.hpp"
#include "support/throws.hpp"
#include "transports.hpp"

namespace orvane::test {
namespace {

template <typename Transport>
class Answer : public testing::Test {};
TYPED_TEST_SUITE(Answer, Transports, TransportName);

TYPED_TEST(Answer, OfStatusZeroIsTakenSilently) {
  TypeParam stream;
  stream.post(0, "fine");
  EXPECT_NO_THROW(stream.flush());
  EXPECT_EQ(stream.waitingAnswers(), 0U);
}

TEST(Answer, OfStatusZeroLeavesItsText) {
  Stream stream;
  stream.pair.post(0, "fine");
  EXPECT_NO_THROW(stream.writer.flush_shm_buffer(0));
  stream.pair.postBytes(hex("e9030000"));
  EXPECT_TRUE(throwsErrno(1001, "fine", [&] { stream.writer.flush_shm_buffer(0); }));
}

TYPED_TEST(Answer, OfAnotherStatusIsThrownAsItStands) {
  TypeParam stream;
  for (std::int32_t status : {1, -5, 0x7FFFFFFF}) {
    stream.post(status, "no %s left");
    EXPECT_TRUE(throwsErrno(status, "no %s left", [&] { stream.flush(); }));
  }
}

TYPED_TEST(Answer, WithoutATextIsThrownWithAnEmptyMessage) {
  TypeParam stream;
  stream.post(1001, "");
  EXPECT_TRUE(throwsErrno(1001, "", [&] { stream.flush(); }));
}

TYPED_TEST(Answer, IsThrownAfterTheBatchWasSentAndEmptied) {
  TypeParam stream;
  stream.open();
  stream.write("hello");
  stream.post(1001, "no");
  EXPECT_TRUE(throwsErrno(1001, "no", [&] { stream.flush(); }));
  EXPECT_EQ(stream.sent().at(0).data, bytesOf("hello"));
  EXPECT_EQ(stream.flushed(), std::vector<Record>());
}

TEST(Answer, IsTakenOneAtEachFlush) {
  Stream stream;
  stream.pair.post(1001, "first");
  stream.pair.post(0, "");
  stream.pair.post(1002, "third");
  EXPECT_TRUE(throwsErrno(1001, "first", [&] { stream.writer.flush_shm_buffer(0); }));
  EXPECT_EQ(stream.pair.waitingAnswers(), 2U);
  EXPECT_NO_THROW(stream.writer.flush_shm_buffer(0));
  EXPECT_TRUE(throwsErrno(1002, "third", [&] { stream.writer.flush_shm_buffer(0); }));
}

TEST(Answer, ThatIsMissingIsNotAwaited) {
  Stream stream;
  EXPECT_NO_THROW(stream.writer.flush_shm_buffer(86400));
}

TYPED_TEST(Answer, IsNotLookedForWithoutAFlush) {
  TypeParam stream;
  stream.open();
  stream.post(1001, "no");
  EXPECT_NO_THROW(stream.write("a"));
  EXPECT_NO_THROW(stream.writer->endSegment());
  EXPECT_EQ(stream.waitingAnswers(), 1U);
}

TEST(Answer, FoundWhileMakingRoomForARecordLosesThatRecord) {
  Stream stream;
  stream.open();
  stream.write(std::string(968, 'x'));
  stream.pair.post(1001, "no");
  const pvk_shm_message_t end = recordHeader(2, 0);
  EXPECT_TRUE(throwsErrno(1001, "no", [&] { stream.writer.write_data(&end, nullptr, 0, true); }));
  ASSERT_EQ(stream.pair.waiting(), 1U);
  EXPECT_EQ(stream.sent().at(0).data, Bytes(968, 'x'));
  EXPECT_EQ(stream.flushed(), std::vector<Record>());
  stream.writer.endSegment();
  EXPECT_EQ(stream.flushed(), (std::vector<Record>{{.type = 2, .seqNo = 3, .segmentDone = 0}}));
}

TEST(Answer, FoundByTheFlushAfterARecordComesAfterItWasSent) {
  Stream stream;
  stream.open();
  stream.pair.post(1001, "no");
  const pvk_shm_message_t end = recordHeader(2, 0);
  EXPECT_TRUE(throwsErrno(1001, "no", [&] { stream.writer.write_data(&end, nullptr, 0, true); }));
  EXPECT_EQ(stream.sent(), (std::vector<Record>{{.type = 2}}));
  stream.writer.endSegment();
  EXPECT_EQ(stream.flushed(), std::vector<Record>()) << "the end would be redundant";
}

TEST(Answer, IsKeptUntilTheNextOneOverwritesAsManyBytesAsItHolds) {
  Stream stream;
  stream.pair.post(1001, "the first text");
  EXPECT_TRUE(throwsErrno(1001, "the first text", [&] { stream.writer.flush_shm_buffer(0); }));
  EXPECT_NO_THROW(stream.writer.flush_shm_buffer(0));
  stream.pair.postBytes(hex("ea030000"));
  EXPECT_TRUE(throwsErrno(1002, "the first text", [&] { stream.writer.flush_shm_buffer(0); }));
  stream.pair.postBytes(hex("eb030000 5448"));
  EXPECT_TRUE(throwsErrno(1003, "THe first text", [&] { stream.writer.flush_shm_buffer(0); }));
  stream.pair.postBytes({});
  EXPECT_TRUE(throwsErrno(1003, "THe first text", [&] { stream.writer.flush_shm_buffer(0); }));
}

TYPED_TEST(Answer, WithoutATerminatorIsReadNoFurtherThanItsField) {
  TypeParam stream;
  stream.post(1001, std::string(128, 'x'));
  EXPECT_TRUE(throwsErrno(1001, std::string(128, 'x'), [&] { stream.flush(); }));
}

TYPED_TEST(Answer, EndsAtItsTerminator) {
  TypeParam stream;
  stream.post(1001, std::string("short\0rest", 10));
  EXPECT_TRUE(throwsErrno(1001, "short", [&] { stream.flush(); }));
}

TEST(Answer, QueueOfFewerBytesServesToo) {
  Stream stream({.geometry = {.responseSize = 8}});
  stream.pair.postBytes(hex("e9030000 6e6f"));
  EXPECT_TRUE(throwsErrno(1001, "no", [&] { stream.writer.flush_shm_buffer(0); }));
}

TEST(Answer, QueueOfMoreBytesFailsInBoostAfterTheBatchWasSent) {
  Stream stream({.geometry = {.responseSize = 133}});
  const pvk_shm_message_t header = recordHeader(9, 0);
  try {
    stream.writer.write_data(&header, nullptr, 0, true);
    ADD_FAILURE() << "nothing was thrown";
  } catch (const boost::interprocess::interprocess_exception& e) {
    EXPECT_EQ(e.get_error_code(), boost::interprocess::size_error);
  }
  EXPECT_EQ(stream.sent(), (std::vector<Record>{{.type = 9}}));
  EXPECT_ANY_THROW(stream.writer.flush_shm_buffer(0));
  EXPECT_EQ(stream.sent(), std::vector<Record>()) << "the batch was emptied";
}

}  // namespace
}  // namespace orvane::test
