#include "orvane/batch.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <new>
#include <queue>
#include <string>
#include <vector>

#include "batch_members.hpp"
#include "orvane/batch_view.hpp"
#include "ox/errno_exception.hpp"
#include "support/allocations.hpp"
#include "support/recording_sink.hpp"
#include "support/throws.hpp"
#include "support/wire.hpp"

namespace orvane::test {
namespace {

using Entry = ShmBatch::Entry;

std::vector<Entry> readByWalking(const ShmBatch& batch) {
  std::vector<Entry> entries;
  for (unsigned int i = 0; i < batch.getNumEntries(); ++i) {
    entries.push_back(batch.getEntry(i));
  }
  return entries;
}

std::vector<Entry> readTrusting(const ShmBatch& batch) {
  std::queue<Entry> queue;
  ShmBatch::getEntriesFromBuffer(queue, batch.getRaw(), batch.getRawSize());
  std::vector<Entry> entries;
  for (; !queue.empty(); queue.pop()) {
    entries.push_back(queue.front());
  }
  return entries;
}

std::vector<Entry> readChecking(const ShmBatch& batch) {
  const BatchView view(batch.getRaw(), batch.getRawSize());
  return {view.begin(), view.end()};
}

// Deployed programs were compiled with this order and these widths.
TEST(Batch, HasItsMembersInDeclaredOrder) {
  ShmBatch batch(64);
  const auto offsetOf = [&batch](const auto& member) {
    return reinterpret_cast<const char*>(&member) - reinterpret_cast<const char*>(&batch);
  };
  EXPECT_EQ(offsetOf(bufferSizeOf(batch)), 0);
  EXPECT_EQ(offsetOf(bufferOf(batch)), 8);
  EXPECT_EQ(offsetOf(usedOf(batch)), 16);
  EXPECT_EQ(offsetOf(metaDataOf(batch)), 24);
  EXPECT_EQ(offsetOf(writePosOf(batch)), 32);
  EXPECT_EQ(sizeof(ShmBatch), 40U);
}

TEST(Batch, KeepsItsMembersInStepWithEachOther) {
  ShmBatch batch(1024);
  const auto expectUsed = [&batch](std::uint64_t used) {
    EXPECT_EQ(bufferSizeOf(batch), 1024U);
    EXPECT_EQ(usedOf(batch), used);
    EXPECT_EQ(writePosOf(batch), batch.getRaw() + used);
  };
  pvk_shm_message_t header;
  header.len = 5;
  const Bytes data = bytesOf("hello");
  expectUsed(8);
  batch.pushBack(Entry(header, data.data()));
  expectUsed(61);
  EXPECT_THROW(batch.pushBack(Entry(header, nullptr)), Ox_ErrnoException);
  expectUsed(61);
  header.len = 1000;
  EXPECT_THROW(batch.pushBack(Entry(header, data.data())), Ox_ErrnoException);
  expectUsed(61);
  batch.clear();
  expectUsed(8);
  EXPECT_EQ(metaDataOf(batch).magic, 0xFF00EE11U);
}

TEST(Batch, TakesItsBufferAtOnceAndGivesItBack) {
  constexpr std::size_t kSize = 4321;
  Bytes memory(kSize, 0xEE);
  int given = 0;
  int takenBack = 0;
  {
    const Allocations allocations(
        [&](std::size_t size) { return size == kSize && ++given == 1 ? memory.data() : nullptr; },
        [&](void* freed) { return freed == memory.data() && ++takenBack == 1; });
    {
      const ShmBatch batch(kSize);
      EXPECT_EQ(given, 1);
      EXPECT_EQ(batch.getRaw(), memory.data());
    }
    EXPECT_EQ(given, 1);
    EXPECT_EQ(takenBack, 1);
  }
  Bytes expected = hex("ff00ee11 00000000");
  expected.resize(kSize);
  EXPECT_EQ(memory, expected) << "all of it was zeroed";
}

TEST(Batch, TracesAnUnsignedCapacityOf32Bits) {
  RecordingSink sink(RecordingSink::Tracing::on);
  const Allocations none([](std::size_t size) -> void* {
    return size > 1'000'000'000 ? throw std::bad_alloc() : nullptr;
  });
  EXPECT_THROW(ShmBatch(0xFFFFFFFF), std::bad_alloc);
  EXPECT_THROW(ShmBatch(0x100000000 + 1024), std::bad_alloc);
  EXPECT_EQ(sink.take(), (std::vector{traced("ShmBatch: bufferSize=4294967295"),
                                      traced("ShmBatch: bufferSize=1024")}));
}

TEST(Batch, SizeIsCheckedInAll64Bits) {
  EXPECT_NO_THROW(ShmBatch::validBufferSizeAssert(0x100000000));
  EXPECT_NO_THROW(ShmBatch::validBufferSizeAssert(0x100000007));
  EXPECT_NO_THROW(ShmBatch::validBufferSizeAssert(0x8000000000000000));
  const Bytes bytes = BatchBytes().bytes();
  std::queue<Entry> entries;
  EXPECT_NO_THROW(ShmBatch::getEntriesFromBuffer(entries, bytes.data(), 0x100000000));
}

TEST(Batch, ReportsAnUnsignedNumberOfEntries) {
  ShmBatch batch(64);
  metaDataOf(batch).numEntries = 0xFFFFFFFE;
  EXPECT_EQ(batch.getNumEntries(), 4294967294U);
  EXPECT_TRUE(
      throwsErrno(9,
                  "Cannot get entry because specified index 4294967295 is outside the range "
                  "of available entries 4294967294",
                  [&] { batch.getEntry(0xFFFFFFFF); }));
}

TEST(MetaData, NamesAnUnsignedMagic) {
  const Bytes bytes(8, 0xFF);
  ShmBatch::MetaData metaData;
  EXPECT_TRUE(throwsErrno(32,
                          "Could not deserialize ShmBatch::MetaData from buffer because the magic "
                          "value 4294967295 is corrupt (expected=4278251025)",
                          [&] { metaData.deserializeFromBuffer(bytes.data()); }));
  EXPECT_EQ(metaData.numEntries, 4294967295U);
}

TEST(MetaDataComparison, LooksAtTheWholeOfBothFields) {
  const ShmBatch::MetaData a;
  ShmBatch::MetaData b;
  b.numEntries = 0x10000;
  EXPECT_TRUE(a != b);
  EXPECT_FALSE(a == b);
  b = a;
  b.magic ^= 0x01000000;
  EXPECT_TRUE(a != b);
  EXPECT_FALSE(a == b);
}

using Reader = std::vector<Entry> (*)(const ShmBatch&);

const std::string kReaderNames[] = {"Walking", "Trusting", "Checking"};

class BatchReaders : public testing::TestWithParam<Reader> {};

INSTANTIATE_TEST_SUITE_P(Each, BatchReaders,
                         testing::Values(readByWalking, readTrusting, readChecking),
                         [](const auto& reader) { return kReaderNames[reader.index]; });

TEST_P(BatchReaders, WalkAcrossLengthsOf64KiBAndMore) {
  const std::vector<std::uint32_t> lengths = {65535, 65536, 65537, 131072, 196608, 1048577, 1};
  ShmBatch batch(2 << 20);
  Bytes data(1048577);
  for (std::size_t i = 0; i < data.size(); ++i) {
    data[i] = static_cast<unsigned char>(i % 251);
  }
  std::vector<const unsigned char*> expected;
  const unsigned char* position = batch.getRaw() + 8;
  for (const std::uint32_t length : lengths) {
    pvk_shm_message_t header;
    header.len = length;
    header.seqNo = expected.size();
    batch.pushBack(Entry(header, data.data()));
    expected.push_back(position + 48);
    position += 48 + length;
  }
  ASSERT_EQ(batch.getRaw() + batch.getRawSize(), position);

  const std::vector<Entry> entries = GetParam()(batch);

  ASSERT_EQ(entries.size(), lengths.size());
  for (std::size_t i = 0; i < entries.size(); ++i) {
    EXPECT_EQ(entries[i].header.len, lengths[i]);
    EXPECT_EQ(entries[i].header.seqNo, i);
    EXPECT_EQ(entries[i].data, expected[i]);
    EXPECT_TRUE(std::equal(entries[i].data, entries[i].data + lengths[i], data.begin()));
  }
}

// Every second entry has a byte of data.
std::unique_ptr<ShmBatch> batchOf70000() {
  auto batch = std::make_unique<ShmBatch>(8 + 70000 * 49);
  const unsigned char data = 'x';
  pvk_shm_message_t header;
  for (std::uint32_t i = 0; i < 70000; ++i) {
    header.seqNo = i;
    header.len = i % 2;
    batch->pushBack(Entry(header, &data));
  }
  return batch;
}

TEST(Batch, CountsMoreThan65535Entries) {
  const std::unique_ptr<ShmBatch> made = batchOf70000();
  const ShmBatch& batch = *made;
  EXPECT_EQ(batch.getNumEntries(), 70000U);
  EXPECT_EQ(batch.getRawSize(), 8 + 70000U * 48 + 35000);
  EXPECT_EQ(Bytes(batch.getRaw(), batch.getRaw() + 8), hex("ff00ee11 00011170"));
  EXPECT_EQ(recordsOf(Bytes(batch.getRaw(), batch.getRaw() + batch.getRawSize())).size(), 70000U);
}

TEST(AllBatchReaders, ReadMoreThan65535Entries) {
  const std::unique_ptr<ShmBatch> made = batchOf70000();
  const ShmBatch& batch = *made;
  for (const unsigned long index : {65535UL, 65536UL, 65537UL, 69999UL}) {
    EXPECT_EQ(batch.getEntry(index).header.seqNo, index);
  }
  for (const Reader read : {readTrusting, readChecking}) {
    const std::vector<Entry> entries = read(batch);
    ASSERT_EQ(entries.size(), 70000U);
    for (std::size_t i = 0; i < entries.size(); ++i) {
      ASSERT_EQ(entries[i].header.seqNo, i);
    }
  }
  EXPECT_EQ(BatchView(batch.getRaw(), batch.getRawSize()).size(), 70000U);
}

TEST(EntryComparison, LooksAtTheLastOfManyBytes) {
  Bytes data(65537, 'x');
  const Bytes same = data;
  pvk_shm_message_t header;
  header.len = 65537;
  EXPECT_TRUE(Entry(header, data.data()) == Entry(header, same.data()));
  data.back() = 'y';
  EXPECT_FALSE(Entry(header, data.data()) == Entry(header, same.data()));
  EXPECT_TRUE(Entry(header, data.data()) != Entry(header, same.data()));
}

}  // namespace
}  // namespace orvane::test
