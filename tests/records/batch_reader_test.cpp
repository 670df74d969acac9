#include <gtest/gtest.h>

#include <queue>
#include <string>
#include <vector>

#include "orvane/batch.hpp"
#include "support/throws.hpp"
#include "support/wire.hpp"

namespace orvane::test {
namespace {

using Entry = ShmBatch::Entry;

std::string indexText(const std::string& index, const std::string& entries) {
  return "Cannot get entry because specified index " + index +
         " is outside the range of available entries " + entries;
}

std::string corruptHeaderText(const std::string& magic) {
  return "Could not deserialize pvk_shm_message from buffer because the magic value " + magic +
         " is corrupt (expected=2864434397)";
}

// "hello", nothing, "abc": their headers start at 8, 61 and 109.
const BatchBytes kThreeRecords =
    BatchBytes().records({{.type = 1, .seqNo = 4, .data = bytesOf("hello")},
                          {.type = 2, .seqNo = 5},
                          {.type = 1, .seqNo = 6, .data = bytesOf("abc")}});

void pushThree(ShmBatch& batch) {
  const Bytes hello = bytesOf("hello");
  const Bytes abc = bytesOf("abc");
  pvk_shm_message_t header;
  header.type = 1;
  header.len = 5;
  header.seqNo = 4;
  batch.pushBack(Entry(header, hello.data()));
  header.type = 2;
  header.len = 0;
  header.seqNo = 5;
  batch.pushBack(Entry(header, hello.data()));
  header.type = 1;
  header.len = 3;
  header.seqNo = 6;
  batch.pushBack(Entry(header, abc.data()));
}

std::vector<Entry> listOf(std::queue<Entry> entries) {
  std::vector<Entry> list;
  for (; !entries.empty(); entries.pop()) {
    list.push_back(entries.front());
  }
  return list;
}

std::queue<Entry> queueOfOne() {
  pvk_shm_message_t header;
  header.seqNo = 77;
  return std::queue<Entry>({Entry(header, nullptr)});
}

void expectUntouched(const std::queue<Entry>& entries) {
  ASSERT_EQ(entries.size(), 1U);
  EXPECT_EQ(entries.front().header.seqNo, 77U);
}

TEST(BatchGetEntry, WalksToEveryEntry) {
  ShmBatch batch(1024);
  pushThree(batch);
  EXPECT_EQ(batch.getEntry(0).header.seqNo, 4U);
  EXPECT_EQ(batch.getEntry(0).header.len, 5U);
  EXPECT_EQ(batch.getEntry(1).header.seqNo, 5U);
  EXPECT_EQ(batch.getEntry(2).header.seqNo, 6U);
  EXPECT_EQ(batch.getEntry(2).header.type, 1U);
}

TEST(BatchGetEntry, PointsIntoTheBatchOrNowhere) {
  ShmBatch batch(1024);
  pushThree(batch);
  EXPECT_EQ(batch.getEntry(0).data, batch.getRaw() + 56);
  EXPECT_EQ(batch.getEntry(1).data, nullptr);
  EXPECT_EQ(batch.getEntry(2).data, batch.getRaw() + 157);
}

TEST(BatchGetEntry, RejectsAnIndexPastTheEnd) {
  ShmBatch batch(1024);
  EXPECT_TRUE(throwsErrno(9, indexText("0", "0"), [&] { batch.getEntry(0); }));
  pushThree(batch);
  EXPECT_TRUE(throwsErrno(9, indexText("3", "3"), [&] { batch.getEntry(3); }));
  EXPECT_TRUE(throwsErrno(9, indexText("18446744073709551615", "3"),
                          [&] { batch.getEntry(0xFFFFFFFFFFFFFFFF); }));
  EXPECT_TRUE(throwsErrno(9, indexText("4294967296", "3"), [&] { batch.getEntry(0x100000000); }));
}

TEST(BatchGetEntry, SeesNoEntryAfterClear) {
  ShmBatch batch(1024);
  pushThree(batch);
  batch.clear();
  EXPECT_TRUE(throwsErrno(9, indexText("0", "0"), [&] { batch.getEntry(0); }));
}

TEST(BatchGetEntry, ChecksEveryHeaderOnItsWayAndNoneBehind) {
  ShmBatch batch(1024);
  pushThree(batch);
  const_cast<unsigned char*>(batch.getRaw())[61 + 47] = 0;  // the middle one: AABBCC00
  EXPECT_EQ(batch.getEntry(0).header.seqNo, 4U);
  EXPECT_TRUE(throwsErrno(32, corruptHeaderText("2864434176"), [&] { batch.getEntry(1); }));
  EXPECT_TRUE(throwsErrno(32, corruptHeaderText("2864434176"), [&] { batch.getEntry(2); }));
}

TEST(BatchReader, GivesBackWhatWasAppended) {
  ShmBatch batch(1024);
  pushThree(batch);
  std::queue<Entry> entries;
  ShmBatch::getEntriesFromBuffer(entries, batch.getRaw(), batch.getRawSize());
  const std::vector<Entry> list = listOf(entries);
  ASSERT_EQ(list.size(), 3U);
  EXPECT_EQ(list[0].header.seqNo, 4U);
  EXPECT_EQ(list[0].data, batch.getRaw() + 56);
  EXPECT_EQ(list[1].header.seqNo, 5U);
  EXPECT_EQ(list[1].data, nullptr);
  EXPECT_EQ(list[2].header.seqNo, 6U);
  EXPECT_EQ(list[2].header.len, 3U);
  EXPECT_EQ(list[2].data, batch.getRaw() + 157);
}

TEST(BatchReader, ReadsTheLaidDownBytes) {
  const Bytes& bytes = kThreeRecords.bytes();
  std::queue<Entry> entries;
  ShmBatch::getEntriesFromBuffer(entries, bytes.data(), bytes.size());
  const std::vector<Entry> list = listOf(entries);
  ASSERT_EQ(list.size(), 3U);
  EXPECT_EQ(list[0].data, bytes.data() + 56);
  EXPECT_EQ(list[1].data, nullptr);
  EXPECT_EQ(list[2].data, bytes.data() + 157);
}

TEST(BatchReader, ReadsAtAnyAlignment) {
  const Bytes& bytes = kThreeRecords.bytes();
  Bytes shifted(1);
  shifted.insert(shifted.end(), bytes.begin(), bytes.end());
  std::queue<Entry> entries;
  ShmBatch::getEntriesFromBuffer(entries, shifted.data() + 1, bytes.size());
  EXPECT_EQ(entries.size(), 3U);
}

TEST(BatchReader, EmptiesTheQueueFirst) {
  std::queue<Entry> entries = queueOfOne();
  const Bytes empty = BatchBytes().bytes();
  ShmBatch::getEntriesFromBuffer(entries, empty.data(), empty.size());
  EXPECT_TRUE(entries.empty());
}

TEST(BatchReader, LeavesTheQueueAloneWhenTheSizeIsTooSmallAndReadsNothing) {
  std::queue<Entry> entries = queueOfOne();
  EXPECT_TRUE(throwsErrno(
      9,
      "Buffer size 5 is invalid because it is smaller than the minimum required buffer size of 8",
      [&] { ShmBatch::getEntriesFromBuffer(entries, nullptr, 5); }));
  expectUntouched(entries);
}

TEST(BatchReader, LeavesTheQueueAloneWhenTheMetadataIsCorrupt) {
  std::queue<Entry> entries = queueOfOne();
  const Bytes zeros(8);
  EXPECT_TRUE(throwsErrno(
      32,
      "Could not deserialize ShmBatch::MetaData from buffer because the magic value 0 is corrupt "
      "(expected=4278251025)",
      [&] { ShmBatch::getEntriesFromBuffer(entries, zeros.data(), zeros.size()); }));
  expectUntouched(entries);
}

TEST(BatchReader, KeepsTheEntriesInFrontOfACorruptHeader) {
  std::queue<Entry> entries = queueOfOne();
  const Bytes bytes = BatchBytes(kThreeRecords).flip(109 + 44, 0xAA).bytes();
  EXPECT_TRUE(throwsErrno(32, corruptHeaderText("12307677"), [&] {
    ShmBatch::getEntriesFromBuffer(entries, bytes.data(), bytes.size());
  }));
  const std::vector<Entry> list = listOf(entries);
  ASSERT_EQ(list.size(), 2U);
  EXPECT_EQ(list[0].header.seqNo, 4U);
  EXPECT_EQ(list[1].header.seqNo, 5U);
}

TEST(BatchReader, KeepsNothingWhenTheFirstHeaderIsCorrupt) {
  std::queue<Entry> entries = queueOfOne();
  const Bytes bytes = BatchBytes(kThreeRecords).flip(8 + 44, 0xAA).bytes();
  EXPECT_TRUE(throwsErrno(32, corruptHeaderText("12307677"), [&] {
    ShmBatch::getEntriesFromBuffer(entries, bytes.data(), bytes.size());
  }));
  EXPECT_TRUE(entries.empty());
}

TEST(BatchReader, TrustsTheCountAndTheLengthsBeyondTheSize) {
  std::queue<Entry> entries;
  ShmBatch::getEntriesFromBuffer(entries, kThreeRecords.bytes().data(), 8);
  EXPECT_EQ(entries.size(), 3U);
  const Bytes longLast = BatchBytes(kThreeRecords).put32(109 + 4, 4000).bytes();
  ShmBatch::getEntriesFromBuffer(entries, longLast.data(), longLast.size());
  EXPECT_EQ(entries.size(), 3U);
  EXPECT_EQ(entries.back().header.len, 4000U);
}

TEST(BatchReader, ReadsNoMoreEntriesThanCounted) {
  std::queue<Entry> entries;
  const Bytes bytes = BatchBytes(kThreeRecords).put32(4, 1).flip(61 + 44, 0xFF).bytes();
  ShmBatch::getEntriesFromBuffer(entries, bytes.data(), bytes.size());
  EXPECT_EQ(entries.size(), 1U);
}

}  // namespace
}  // namespace orvane::test
