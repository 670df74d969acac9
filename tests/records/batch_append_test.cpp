#include "orvane/batch.hpp"

#include <gtest/gtest.h>

#include <string>
#include <type_traits>

#include "entries.hpp"
#include "support/grouping_locale.hpp"
#include "support/recording_sink.hpp"
#include "support/throws.hpp"
#include "support/wire.hpp"

namespace orvane::test {
namespace {

using Entry = ShmBatch::Entry;

static_assert(!std::is_polymorphic_v<ShmBatch>);
static_assert(!std::is_copy_constructible_v<ShmBatch>);
static_assert(!std::is_copy_assignable_v<ShmBatch>);
static_assert(std::is_same_v<decltype(&ShmBatch::getRawSize), unsigned long (ShmBatch::*)() const>);
static_assert(
    std::is_same_v<decltype(&ShmBatch::getNumEntries), unsigned int (ShmBatch::*)() const>);

static_assert(std::is_convertible_v<unsigned long, ShmBatch>);  // callers convert

constexpr const char* kNoRoom =
    "Could not add new batch entry because there is no room for it in the buffer";

std::string tooSmall(const std::string& size) {
  return "Buffer size " + size +
         " is invalid because it is smaller than the minimum required buffer size of 8";
}

unsigned long sizeOf(const ShmBatch& batch) {
  return batch.getRawSize();
}

TEST(Batch, IsMadeOfItsCapacityWithoutACast) {
  EXPECT_EQ(sizeOf(1024UL), 8U);
}

Entry entryOfLength(std::uint32_t len) {
  pvk_shm_message_t header;
  header.len = len;
  return {header, nullptr};
}

Bytes firstBytesOf(const ShmBatch& batch, std::size_t size) {
  return {batch.getRaw(), batch.getRaw() + size};
}

Bytes bytesInUse(const ShmBatch& batch) {
  return firstBytesOf(batch, batch.getRawSize());
}

TEST(Batch, FreshIsEmptyAndZeroFilled) {
  const ShmBatch batch(64);
  EXPECT_TRUE(batch.empty());
  EXPECT_EQ(batch.getNumEntries(), 0U);
  EXPECT_EQ(batch.getRawSize(), 8U);
  Bytes expected = hex("ff00ee11 00000000");
  expected.resize(64);
  EXPECT_EQ(firstBytesOf(batch, 64), expected);
}

TEST(Batch, TracesItsCapacityWhenItIsBuilt) {
  RecordingSink sink(RecordingSink::Tracing::on);
  const ShmBatch batch(1024);
  EXPECT_EQ(sink.take(), std::vector{traced("ShmBatch: bufferSize=1024")});
}

TEST(Batch, TracesItsCapacityBeforeItRejectsIt) {
  RecordingSink sink(RecordingSink::Tracing::on);
  EXPECT_TRUE(throwsErrno(9, tooSmall("7"), [] { const ShmBatch batch(7); }));
  EXPECT_EQ(sink.take(), std::vector{traced("ShmBatch: bufferSize=7")});
}

TEST(Batch, TracesNothingWhileTracingIsOff) {
  RecordingSink sink;
  const ShmBatch batch(1024);
  EXPECT_EQ(sink.take(), std::vector<Line>());
}

TEST(Batch, OfLessThanEightBytesCannotBeBuilt) {
  EXPECT_TRUE(throwsErrno(9, tooSmall("7"), [] { const ShmBatch batch(7); }));
  EXPECT_TRUE(throwsErrno(9, tooSmall("0"), [] { const ShmBatch batch(0); }));
}

TEST(Batch, SizeIsValidFromEightBytesOn) {
  EXPECT_TRUE(throwsErrno(9, tooSmall("0"), [] { ShmBatch::validBufferSizeAssert(0); }));
  EXPECT_TRUE(throwsErrno(9, tooSmall("4"), [] { ShmBatch::validBufferSizeAssert(4); }));
  EXPECT_TRUE(throwsErrno(9, tooSmall("7"), [] { ShmBatch::validBufferSizeAssert(7); }));
  EXPECT_NO_THROW(ShmBatch::validBufferSizeAssert(8));
  EXPECT_NO_THROW(ShmBatch::validBufferSizeAssert(0xFFFFFFFFFFFFFFFF));
}

TEST(Batch, OfEightBytesStoresNothing) {
  ShmBatch batch(8);
  EXPECT_TRUE(batch.empty());
  EXPECT_FALSE(batch.canStore(entryOf(0, {})));
  EXPECT_TRUE(throwsErrno(4, kNoRoom, [&] { batch.pushBack(entryOf(0, {})); }));
  EXPECT_EQ(bytesInUse(batch), hex("ff00ee11 00000000"));
}

TEST(Batch, Of56BytesStoresOneEntryWithoutData) {
  ShmBatch batch(56);
  EXPECT_TRUE(batch.canStore(entryOf(0, {})));
  batch.pushBack(entryOf(0, {}));
  EXPECT_EQ(batch.getRawSize(), 56U);
  EXPECT_FALSE(batch.canStore(entryOf(0, {})));
  EXPECT_TRUE(throwsErrno(4, kNoRoom, [&] { batch.pushBack(entryOf(0, {})); }));
}

TEST(Batch, CanStoreWhatFitsToTheByte) {
  const ShmBatch batch(1024);
  EXPECT_TRUE(batch.canStore(entryOfLength(968)));
  EXPECT_FALSE(batch.canStore(entryOfLength(969)));
}

TEST(Batch, CountsLengthsBeyond32BitsWhenItLooksForRoom) {
  ShmBatch batch(1024);
  for (std::uint32_t len : {0xFFFFFFCFU, 0xFFFFFFD0U, 0xFFFFFFFFU}) {
    EXPECT_FALSE(batch.canStore(entryOfLength(len)));
    EXPECT_TRUE(throwsErrno(4, kNoRoom, [&] { batch.pushBack(entryOfLength(len)); }));
  }
}

TEST(Batch, LaysOutEntriesWithoutGaps) {
  ShmBatch batch(1024);
  pvk_shm_message_t first;
  first.type = 1;
  first.len = 5;
  first.seqNo = 0x0102030405060708;
  batch.pushBack(Entry(first, bytesOf("hello").data()));
  pvk_shm_message_t second;
  second.type = 2;
  second.segmentNo = 9;
  second.segAlg = 1;
  batch.pushBack(Entry(second, nullptr));
  EXPECT_EQ(batch.getNumEntries(), 2U);
  EXPECT_FALSE(batch.empty());
  EXPECT_EQ(batch.getRawSize(), 109U);
  EXPECT_EQ(bytesInUse(batch),
            hex("ff00ee11 00000002"
                "00000001 00000005 0102030405060708 0000000000000000 00000001 00000000"
                "00000000 00000000 00000000 aabbccdd 68656c6c6f"
                "00000002 00000000 0000000000000000 0000000000000009 00000001 00000001"
                "00000000 00000000 00000000 aabbccdd"));
}

TEST(Batch, IsCompleteAfterEveryAppend) {
  ShmBatch batch(1024);
  EXPECT_EQ(firstBytesOf(batch, 8), hex("ff00ee11 00000000"));
  batch.pushBack(entryOf(1, bytesOf("a")));
  EXPECT_EQ(firstBytesOf(batch, 8), hex("ff00ee11 00000001"));
  EXPECT_EQ(batch.getRawSize(), 57U);
  batch.pushBack(entryOf(1, {}));
  EXPECT_EQ(firstBytesOf(batch, 8), hex("ff00ee11 00000002"));
  EXPECT_EQ(batch.getRawSize(), 105U);
  EXPECT_EQ(recordsOf(bytesInUse(batch)).size(), 2U);
}

TEST(Batch, CountsMoreThan255Entries) {
  ShmBatch batch(8 + 300 * 48);
  for (int i = 0; i < 300; ++i) {
    batch.pushBack(entryOf(0, {}));
  }
  EXPECT_EQ(firstBytesOf(batch, 8), hex("ff00ee11 0000012c"));
  EXPECT_EQ(batch.getNumEntries(), 300U);
}

TEST(Batch, CopiesTheDataBeforeItReturns) {
  ShmBatch batch(1024);
  Bytes data = bytesOf("hello");
  batch.pushBack(entryOf(1, data));
  data.assign(5, 'x');
  EXPECT_EQ(recordsOf(bytesInUse(batch)).at(0).data, bytesOf("hello"));
}

TEST(Batch, WithoutRoomWritesNoByteAtAll) {
  ShmBatch batch(120);  // 59 are free behind the first: a header and 11 bytes
  batch.pushBack(entryOf(1, bytesOf("hello")));
  const Bytes before = firstBytesOf(batch, 120);
  EXPECT_TRUE(throwsErrno(4, kNoRoom, [&] { batch.pushBack(entryOf(7, Bytes(12, 'x'))); }));
  EXPECT_EQ(firstBytesOf(batch, 120), before);
  EXPECT_EQ(batch.getRawSize(), 61U);
  EXPECT_EQ(batch.getNumEntries(), 1U);
  batch.pushBack(entryOf(7, Bytes(11, 'x')));
  EXPECT_EQ(batch.getRawSize(), 120U);
}

TEST(Batch, MissesRoomBeforeItMissesData) {
  ShmBatch batch(56);
  EXPECT_TRUE(throwsErrno(4, kNoRoom, [&] { batch.pushBack(entryOfLength(1)); }));
}

TEST(Batch, LeavesTheHeaderOfAnEntryWithoutDataBeyondItsUsedBytes) {
  ShmBatch batch(160);
  batch.pushBack(entryOf(1, bytesOf("hello")));
  const Bytes before = firstBytesOf(batch, 61);
  pvk_shm_message_t rejected;
  rejected.type = 0x0A0B0C0D;
  rejected.len = 5;
  EXPECT_TRUE(throwsErrno(
      9, "Invalid header; the specified length of data is 5 but the data pointer is NULL",
      [&] { batch.pushBack(Entry(rejected, nullptr)); }));
  EXPECT_EQ(batch.getRawSize(), 61U);
  EXPECT_EQ(batch.getNumEntries(), 1U);
  Bytes expected = before;
  const Bytes header =
      hex("0a0b0c0d 00000005 0000000000000000 0000000000000000 00000001 00000000"
          "00000000 00000000 00000000 aabbccdd");
  expected.insert(expected.end(), header.begin(), header.end());
  expected.resize(160);
  EXPECT_EQ(firstBytesOf(batch, 160), expected);

  batch.pushBack(entryOf(2, bytesOf("next")));  // overwrites it
  const std::vector<Record> records = recordsOf(bytesInUse(batch));
  EXPECT_EQ(records, (std::vector<Record>{{.type = 1, .data = bytesOf("hello")},
                                          {.type = 2, .data = bytesOf("next")}}));
}

TEST(Batch, WritesPlainDecimalsIntoItsExceptionsUnderAGroupingGlobalLocale) {
  const GlobalGroupingLocale grouping;
  ShmBatch batch(4096);
  EXPECT_TRUE(throwsErrno(
      9, "Invalid header; the specified length of data is 1234 but the data pointer is NULL",
      [&] { batch.pushBack(entryOfLength(1234)); }));
  EXPECT_TRUE(throwsErrno(
      9,
      "Cannot get entry because specified index 1234567 is outside the range of available "
      "entries 0",
      [&] { batch.getEntry(1234567); }));
}

TEST(Batch, IgnoresThePointerOfAnEntryWithoutLength) {
  ShmBatch batch(128);
  const Bytes data = bytesOf("unused");
  batch.pushBack(Entry(pvk_shm_message_t(), data.data()));
  EXPECT_EQ(batch.getRawSize(), 56U);
  Bytes behind(128 - 56);
  EXPECT_EQ(Bytes(batch.getRaw() + 56, batch.getRaw() + 128), behind);
}

TEST(Batch, StoresAHeaderWithAnyMagic) {
  ShmBatch batch(56);
  EXPECT_NO_THROW(batch.pushBack(Entry(nullptr)));
  EXPECT_EQ(recordsOf(bytesInUse(batch)).at(0).magic, 0U);
}

TEST(Batch, ClearedKeepsTheOldBytesBehindItsMetadata) {
  ShmBatch batch(256);
  for (const char* text : {"one", "two", "three"}) {
    batch.pushBack(entryOf(1, bytesOf(text)));
  }
  Bytes expected = firstBytesOf(batch, 256);
  expected[7] = 0;
  batch.clear();
  EXPECT_TRUE(batch.empty());
  EXPECT_EQ(batch.getNumEntries(), 0U);
  EXPECT_EQ(batch.getRawSize(), 8U);
  EXPECT_EQ(firstBytesOf(batch, 256), expected);
  EXPECT_EQ(firstBytesOf(batch, 8), hex("ff00ee11 00000000"));
}

TEST(Batch, ClearedHasItsWholeCapacityAgain) {
  ShmBatch batch(64);
  const unsigned char* const raw = batch.getRaw();
  batch.pushBack(entryOf(1, Bytes(8, 'x')));
  batch.clear();
  batch.pushBack(entryOf(2, Bytes(8, 'y')));
  EXPECT_EQ(batch.getRaw(), raw);
  EXPECT_EQ(recordsOf(bytesInUse(batch)),
            (std::vector<Record>{{.type = 2, .data = Bytes(8, 'y')}}));
}

}  // namespace
}  // namespace orvane::test
