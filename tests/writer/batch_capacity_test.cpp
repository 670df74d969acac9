#include <gtest/gtest.h>

#include "support/stream.hpp"
#include "support/throws.hpp"

namespace orvane::test {
namespace {

// The batch is as large as the largest message, to the byte and whatever its size.
class BatchCapacity : public testing::TestWithParam<std::uint32_t> {};

std::string nameOf(const testing::TestParamInfo<std::uint32_t>& info) {
  return std::to_string(info.param) + "Bytes";
}
INSTANTIATE_TEST_SUITE_P(Of, BatchCapacity,
                         testing::Values(56U, 57U, 4095U, 65591U, 65592U, 131128U, 1048575U,
                                         1048576U, 1048577U, 4194365U),
                         nameOf);

TEST_P(BatchCapacity, IsFilledByOneRecordToTheLastByte) {
  const std::uint32_t size = GetParam();
  Stream stream({.geometry = {.messageSize = size, .depth = 2}});
  const std::uint32_t length = size - 8 - 48;
  Bytes data(length, 'x');
  if (length > 0) {
    data.back() = 'y';
  }
  const pvk_shm_message_t header = recordHeader(9, length, 1);
  stream.writer.write_data(&header, data.data(), 0, false);
  EXPECT_EQ(stream.pair.waiting(), 0U);
  stream.writer.flush_shm_buffer(0);
  const Bytes message = stream.pair.receive().bytes;
  EXPECT_EQ(message.size(), size);
  const std::vector<Record> records = recordsOf(message);
  ASSERT_EQ(records.size(), 1U);
  EXPECT_TRUE(records[0].data == data);
}

TEST_P(BatchCapacity, IsExceededByOneByte) {
  const std::uint32_t size = GetParam();
  Stream stream({.geometry = {.messageSize = size, .depth = 2}});
  const Bytes data(size - 8 - 48 + 1, 'x');
  const auto length = static_cast<std::uint32_t>(data.size());
  const pvk_shm_message_t header = recordHeader(9, length, 1);
  EXPECT_TRUE(throwsErrno(89,
                          "Could not fit header (type=9) with data length " +
                              std::to_string(length) +
                              " into the batch, even after batch has been flushed",
                          [&] { stream.writer.write_data(&header, data.data(), 0, true); }));
  EXPECT_EQ(stream.sent(), std::vector<Record>()) << "one flush was tried, of the empty batch";
  EXPECT_EQ(stream.pair.waiting(), 0U);
}

TEST(BatchOfManyRecords, IsSentWholeAndTheRecordThatNoLongerFitsComesNext) {
  constexpr std::uint32_t kLength = 1000;
  Stream stream({.geometry = {.messageSize = 8 + 1100 * (kLength + 48), .depth = 2}});
  const Bytes data(kLength, 'x');
  pvk_shm_message_t header = recordHeader(9, kLength);
  for (std::uint32_t i = 0; i <= 1100; ++i) {
    header.seqNo = i;
    stream.writer.write_data(&header, data.data(), 0, false);
    ASSERT_EQ(stream.pair.waiting(), i < 1100 ? 0U : 1U);
  }
  const Message message = stream.pair.receive();
  EXPECT_EQ(message.bytes.size(), 1152808U);
  EXPECT_EQ(recordsOf(message.bytes).size(), 1100U);
  EXPECT_EQ(stream.flushed().at(0).seqNo, 1100U);
}

TEST(BatchCapacityOfAWriter, IsTheSendQueuesAndNotTheResponseQueues) {
  Stream stream({.geometry = {.messageSize = 64, .responseSize = 132}});
  const pvk_shm_message_t header = recordHeader(9, 9);
  EXPECT_TRUE(throwsErrno(89,
                          "Could not fit header (type=9) with data length 9 into the batch, even "
                          "after batch has been flushed",
                          [&] { stream.writer.write_data(&header, Bytes(9).data(), 0, false); }));
}

}  // namespace
}  // namespace orvane::test
