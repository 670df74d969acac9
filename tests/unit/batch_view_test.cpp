#include "orvane/batch_view.hpp"

#include <gtest/gtest.h>

#include <vector>

#include "ox/errno_exception.hpp"
#include "support/wire.hpp"

namespace orvane::test {
namespace {

ox_status_t statusOfViewing(const Bytes& bytes) {
  try {
    const BatchView view(bytes.data(), bytes.size());
    return 0;
  } catch (const Ox_ErrnoException& e) {
    return e.status();
  }
}

const BatchBytes kTwoRecords = BatchBytes().records(
    {{.type = 1, .seqNo = 2, .data = bytesOf("hello")}, {.type = 2, .seqNo = 3}});

TEST(BatchView, GivesBackWhatABatchHolds) {
  ShmBatch batch(1024);
  const Bytes hello = bytesOf("hello");
  pvk_shm_message_t header;
  header.type = 1;
  header.len = 5;
  const ShmBatch::Entry first(header, hello.data());
  header.type = 2;
  header.len = 0;
  const ShmBatch::Entry second(header, nullptr);
  batch.pushBack(first);
  batch.pushBack(second);
  const BatchView view(batch.getRaw(), batch.getRawSize());
  EXPECT_EQ(view.size(), 2U);
  EXPECT_FALSE(view.empty());
  const std::vector<ShmBatch::Entry> entries(view.begin(), view.end());
  ASSERT_EQ(entries.size(), 2U);
  EXPECT_TRUE(entries[0] == first);
  EXPECT_EQ(entries[0].data, batch.getRaw() + 56);
  EXPECT_TRUE(entries[1] == second);
  EXPECT_EQ(entries[1].data, nullptr);
}

TEST(BatchView, OfAnEmptyBatchIsEmpty) {
  const Bytes bytes = BatchBytes().bytes();
  const BatchView view(bytes.data(), bytes.size());
  EXPECT_TRUE(view.empty());
  EXPECT_EQ(view.size(), 0U);
  EXPECT_TRUE(view.begin() == view.end());
}

TEST(BatchView, RejectsEveryCutOfABatch) {
  const std::size_t whole = kTwoRecords.bytes().size();
  EXPECT_EQ(statusOfViewing(kTwoRecords.bytes()), 0);
  for (std::size_t size = 0; size < whole; ++size) {
    EXPECT_EQ(statusOfViewing(BatchBytes(kTwoRecords).cut(size).bytes()), 9) << size << " bytes";
  }
}

TEST(BatchView, RejectsBytesLeftOverBehindTheLastEntry) {
  EXPECT_EQ(statusOfViewing(BatchBytes(kTwoRecords).append({0}).bytes()), 9);
}

TEST(BatchView, RejectsACountOrALengthBeyondItsBytes) {
  EXPECT_EQ(statusOfViewing(BatchBytes(kTwoRecords).put32(4, 3).bytes()), 9);
  EXPECT_EQ(statusOfViewing(BatchBytes(kTwoRecords).put32(4, 0xFFFFFFFF).bytes()), 9);
  EXPECT_EQ(statusOfViewing(BatchBytes(kTwoRecords).put32(12, 0xFFFFFFFF).bytes()), 9);
}

TEST(BatchView, RejectsCorruptMagicWords) {
  EXPECT_EQ(statusOfViewing(BatchBytes(kTwoRecords).flip(0, 1).bytes()), 32);
  EXPECT_EQ(statusOfViewing(BatchBytes(kTwoRecords).flip(8 + 44, 1).bytes()), 32);
  EXPECT_EQ(statusOfViewing(BatchBytes(kTwoRecords).flip(61 + 47, 1).bytes()), 32);
}

}  // namespace
}  // namespace orvane::test
