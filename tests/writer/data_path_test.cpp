#include <gtest/gtest.h>

#include "support/grouping_locale.hpp"
#include "support/stream.hpp"
#include "support/throws.hpp"

namespace orvane::test {
namespace {

// Free for the first record of an empty batch of 1024 bytes: 1024 - 8 - 48.
constexpr std::uint32_t kWholeBatch = 968;

std::string tooLarge(const std::string& size) {
  return "Segment too large error.  Received segment of size " + size +
         " bytes, but the maximum allowed segment size is 131072 bytes";
}

void write(Stream& stream, const pvk_shm_message_t& header, bool flush = false) {
  const Bytes data(header.len, 'x');
  stream.writer.write_data(&header, data.data(), 0, flush);
}

// Whether an open writer takes its last record for an end of segment.
bool endIsRedundant(Stream& stream) {
  stream.writer.flush_shm_buffer(0);
  stream.pair.discardAll();
  stream.writer.endSegment();
  return stream.flushed().empty();
}

TEST(WriteData, StoresTheHeaderAsItStands) {
  Stream stream;
  pvk_shm_message_t header;
  header.type = 99;
  header.len = 3;
  header.seqNo = 0x100000002;
  header.segmentNo = 0x300000004;
  header.segmentDone = 5;
  header.segAlg = 6;
  header.segParam1 = 7;
  header.segParam2 = 8;
  header.segParam3 = 9;
  header.magic = 10;
  const Bytes data = bytesOf("abc");
  stream.writer.write_data(&header, data.data(), 0, false);
  EXPECT_EQ(stream.flushed(), (std::vector<Record>{{.type = 99,
                                                    .seqNo = 0x100000002,
                                                    .segmentNo = 0x300000004,
                                                    .segmentDone = 5,
                                                    .segAlg = 6,
                                                    .segParam1 = 7,
                                                    .segParam2 = 8,
                                                    .segParam3 = 9,
                                                    .magic = 10,
                                                    .data = data}}));
}

TEST(WriteData, LeavesTheWritersOwnCountersAlone) {
  Stream stream;
  stream.open();
  write(stream, recordHeader(1, 5));
  stream.writer.endSegment();
  EXPECT_EQ(stream.flushed().at(1), (Record{.type = 2, .seqNo = 2, .segmentDone = 1}));
}

TEST(WriteData, NeedsNoOpenWriter) {
  Stream stream;
  write(stream, recordHeader(9, 5), true);
  EXPECT_EQ(stream.sent(), (std::vector<Record>{{.type = 9, .data = Bytes(5, 'x')}}));
}

TEST(WriteData, CopiesTheDataBeforeItReturns) {
  Stream stream;
  Bytes data = bytesOf("abc");
  const pvk_shm_message_t header = recordHeader(9, 3);
  stream.writer.write_data(&header, data.data(), 0, false);
  data.assign(3, 'z');
  EXPECT_EQ(stream.flushed().at(0).data, bytesOf("abc"));
}

TEST(WriteData, SendsOnlyWhenAskedTo) {
  Stream stream;
  write(stream, recordHeader(9, 5), false);
  EXPECT_EQ(stream.pair.waiting(), 0U);
  write(stream, recordHeader(9, 5), true);
  EXPECT_EQ(stream.pair.waiting(), 1U);
  EXPECT_EQ(stream.sent().size(), 2U);
}

TEST(WriteData, StoresARecordThatFitsToTheByteWithoutAFlush) {
  Stream stream;
  write(stream, recordHeader(9, 100));
  write(stream, recordHeader(9, kWholeBatch - 148));
  EXPECT_EQ(stream.pair.waiting(), 0U);
  stream.writer.flush_shm_buffer(0);
  EXPECT_EQ(stream.pair.receive().bytes.size(), 1024U);
}

TEST(WriteData, FlushesFirstWhenARecordIsOneByteTooLong) {
  Stream stream;
  write(stream, recordHeader(8, 100));
  write(stream, recordHeader(9, kWholeBatch - 147));
  ASSERT_EQ(stream.pair.waiting(), 1U);
  EXPECT_EQ(stream.sent(), (std::vector<Record>{{.type = 8, .data = Bytes(100, 'x')}}));
  EXPECT_EQ(stream.flushed().at(0).type, 9U);
}

TEST(WriteData, SendsTwoMessagesWhenItFlushesBeforeAndAfterTheRecord) {
  Stream stream;
  write(stream, recordHeader(8, kWholeBatch));
  write(stream, recordHeader(9, 0), true);
  ASSERT_EQ(stream.pair.waiting(), 2U);
  EXPECT_EQ(stream.sent().at(0).type, 8U);
  EXPECT_EQ(stream.sent(), (std::vector<Record>{{.type = 9}}));
}

TEST(WriteData, RejectsARecordThatNoBatchHoldsAfterOneFlush) {
  Stream stream;
  stream.open();
  write(stream, recordHeader(8, 1));
  EXPECT_TRUE(throwsErrno(89,
                          "Could not fit header (type=2) with data length 969 into the batch, "
                          "even after batch has been flushed",
                          [&] { write(stream, recordHeader(2, kWholeBatch + 1)); }));
  ASSERT_EQ(stream.pair.waiting(), 1U);
  EXPECT_EQ(stream.sent(), (std::vector<Record>{{.type = 8, .data = Bytes(1, 'x')}}));
  EXPECT_EQ(stream.flushed(), std::vector<Record>());
  EXPECT_FALSE(endIsRedundant(stream));
}

TEST(WriteData, SendsAnEmptyBatchForARecordThatNoBatchHolds) {
  Stream stream;
  EXPECT_ANY_THROW(write(stream, recordHeader(9, kWholeBatch + 1)));
  ASSERT_EQ(stream.pair.waiting(), 1U);
  EXPECT_EQ(stream.pair.receive().bytes, hex("ff00ee11 00000000"));
}

TEST(WriteData, CountsLengthsBeyond32BitsWhenItLooksForRoom) {
  Stream stream;
  const unsigned char byte = 0;
  for (std::uint32_t len : {0xFFFFFFCFU, 0xFFFFFFD0U, 0xFFFFFFFFU}) {
    const pvk_shm_message_t header = recordHeader(4294967295U, len, 1);
    EXPECT_TRUE(throwsErrno(89,
                            "Could not fit header (type=4294967295) with data length " +
                                std::to_string(len) +
                                " into the batch, even after batch has been flushed",
                            [&] { stream.writer.write_data(&header, &byte, 0, false); }));
    stream.pair.discardAll();
  }
}

TEST(WriteData, StoresTheLargestSegment) {
  Stream stream({.geometry = {.messageSize = 200000}});
  write(stream, recordHeader(9, 131072));
  EXPECT_EQ(stream.flushed().at(0).data.size(), 131072U);
}

TEST(WriteData, RejectsALargerSegmentAndChangesNothing) {
  Stream stream({.geometry = {.messageSize = 200000}});
  stream.open();
  write(stream, recordHeader(8, 1));
  for (std::uint32_t segAlg : {0U, 2U, 0xFFFFFFFFU}) {
    EXPECT_TRUE(throwsErrno(85, tooLarge("131073"),
                            [&] { write(stream, recordHeader(2, 131073, segAlg), true); }));
  }
  EXPECT_EQ(stream.pair.waiting(), 0U);
  EXPECT_EQ(stream.flushed(), (std::vector<Record>{{.type = 8, .data = Bytes(1, 'x')}}));
  EXPECT_FALSE(endIsRedundant(stream));
}

TEST(WriteData, RejectsALargerSegmentBeforeItFlushesForRoom) {
  Stream stream;
  write(stream, recordHeader(8, kWholeBatch));
  const pvk_shm_message_t header = recordHeader(9, 4294967295U);
  EXPECT_TRUE(throwsErrno(85, tooLarge("4294967295"),
                          [&] { stream.writer.write_data(&header, nullptr, 0, true); }));
  EXPECT_EQ(stream.pair.waiting(), 0U);
}

TEST(WriteData, StoresALargerSegmentOfStateOne) {
  Stream stream({.geometry = {.messageSize = 200000}});
  write(stream, recordHeader(9, 131073, 1));
  EXPECT_EQ(stream.flushed().at(0).data.size(), 131073U);
}

TEST(WriteData, RejectsALengthWithoutDataAndKeepsTheBatch) {
  Stream stream;
  stream.open();
  write(stream, recordHeader(8, 1));
  const pvk_shm_message_t header = recordHeader(2, 5);
  EXPECT_TRUE(throwsErrno(
      9, "Invalid header; the specified length of data is 5 but the data pointer is NULL",
      [&] { stream.writer.write_data(&header, nullptr, 0, true); }));
  EXPECT_EQ(stream.flushed(), (std::vector<Record>{{.type = 8, .data = Bytes(1, 'x')}}));
  EXPECT_FALSE(endIsRedundant(stream));
}

TEST(WriteData, RemembersTheTypeOfEveryStoredRecord) {
  Stream stream;
  stream.open();
  for (std::uint32_t type : {77U, 0x102U, 0x10002U, 4294967295U}) {
    write(stream, recordHeader(2, 0));
    EXPECT_TRUE(endIsRedundant(stream));
    write(stream, recordHeader(type, 0));
    EXPECT_FALSE(endIsRedundant(stream)) << type;
  }
}

TEST(WriteData, RemembersTheTypeEvenWhenItsFlushFails) {
  Stream stream;
  stream.open();
  stream.pair.fill();
  EXPECT_ANY_THROW(write(stream, recordHeader(2, 0), true));
  stream.pair.discardAll();
  EXPECT_EQ(stream.flushed(), (std::vector<Record>{{.type = 2}}));
  EXPECT_TRUE(endIsRedundant(stream));
}

TEST(WriteData, ForgetsTheRecordWhoseRoomCouldNotBeFlushed) {
  Stream stream;
  stream.open();
  write(stream, recordHeader(8, kWholeBatch));
  stream.pair.fill();
  EXPECT_TRUE(throwsErrno(15, "Timed out after waiting 0s to send data to orvaned on stream stream",
                          [&] { write(stream, recordHeader(2, 0)); }));
  stream.pair.discardAll();
  EXPECT_EQ(stream.flushed(), (std::vector<Record>{{.type = 8, .data = Bytes(968, 'x')}}));
  EXPECT_FALSE(endIsRedundant(stream));
}

TEST(WriteData, WritesPlainDecimalsIntoItsExceptionsUnderAGroupingGlobalLocale) {
  const GlobalGroupingLocale grouping;
  Stream stream;
  EXPECT_TRUE(throwsErrno(85, tooLarge("131073"), [&] { write(stream, recordHeader(9, 131073)); }));
  EXPECT_TRUE(throwsErrno(89,
                          "Could not fit header (type=1234) with data length 131072 into the "
                          "batch, even after batch has been flushed",
                          [&] { write(stream, recordHeader(1234, 131072)); }));
}

}  // namespace
}  // namespace orvane::test
