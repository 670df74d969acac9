#include <gtest/gtest.h>

#include <type_traits>

#include "orvane/batch.hpp"
#include "support/grouping_locale.hpp"
#include "support/throws.hpp"
#include "support/wire.hpp"

namespace orvane::test {
namespace {

using MetaData = ShmBatch::MetaData;

static_assert(!std::is_polymorphic_v<MetaData>);
static_assert(std::is_same_v<decltype(MetaData().getSerializedSize()), unsigned long>);

std::string corruptMetaData(const std::string& magic) {
  return "Could not deserialize ShmBatch::MetaData from buffer because the magic value " + magic +
         " is corrupt (expected=4278251025)";
}

TEST(MetaData, StartsAsAnEmptyBatch) {
  const MetaData metaData;
  EXPECT_EQ(metaData.magic, 0xFF00EE11U);
  EXPECT_EQ(metaData.numEntries, 0U);
}

TEST(MetaData, IsAlwaysEightBytesSerialized) {
  EXPECT_EQ(MetaData::getSerializedSize(), 8U);
  MetaData metaData;
  metaData.numEntries = 0xFFFFFFFF;
  EXPECT_EQ(metaData.getSerializedSize(), 8U);
}

TEST(MetaData, FreshSerializesToItsMagicAndZero) {
  Bytes bytes(10, 0xEE);
  EXPECT_EQ(MetaData().serializeToBuffer(bytes.data() + 1), bytes.data() + 9);
  EXPECT_EQ(bytes, hex("ee ff00ee11 00000000 ee"));
}

TEST(MetaData, SerializesBothFieldsBigEndianUnchecked) {
  MetaData metaData;
  metaData.magic = 0x01020304;
  metaData.numEntries = 0x05060708;
  Bytes bytes(8);
  metaData.serializeToBuffer(bytes.data());
  EXPECT_EQ(bytes, hex("01020304 05060708"));
}

TEST(MetaData, ReadsBothFields) {
  const Bytes bytes = hex("00 ff00ee11 05060708");
  MetaData metaData;
  metaData.magic = 0;
  EXPECT_EQ(metaData.deserializeFromBuffer(bytes.data() + 1), bytes.data() + 9);
  EXPECT_EQ(metaData.magic, 0xFF00EE11U);
  EXPECT_EQ(metaData.numEntries, 0x05060708U);
}

TEST(MetaData, RejectsEightZeroBytesAndHoldsThem) {
  const Bytes zeros(8);
  MetaData metaData;
  metaData.numEntries = 3;
  EXPECT_TRUE(
      throwsErrno(32, corruptMetaData("0"), [&] { metaData.deserializeFromBuffer(zeros.data()); }));
  EXPECT_EQ(metaData.magic, 0U);
  EXPECT_EQ(metaData.numEntries, 0U);
}

TEST(MetaData, KeepsWhatWasReadWhenTheMagicIsCorrupt) {
  const Bytes bytes = hex("00bbccdd 00000007");
  MetaData metaData;
  EXPECT_TRUE(throwsErrno(32, corruptMetaData("12307677"),
                          [&] { metaData.deserializeFromBuffer(bytes.data()); }));
  EXPECT_EQ(metaData.magic, 0x00BBCCDDU);
  EXPECT_EQ(metaData.numEntries, 7U);
}

TEST(MetaData, RejectsEverySingleFlippedBitOfTheMagic) {
  for (std::size_t bit = 0; bit < 32; ++bit) {
    const Bytes bytes =
        BatchBytes().flip(bit / 8, static_cast<unsigned char>(1U << bit % 8)).bytes();
    MetaData metaData;
    EXPECT_ANY_THROW(metaData.deserializeFromBuffer(bytes.data())) << "bit " << bit;
  }
}

TEST(MetaData, WritesPlainDecimalsIntoItsExceptionUnderAGroupingGlobalLocale) {
  const GlobalGroupingLocale grouping;
  const Bytes bytes = hex("00bbccdd 00000007");
  MetaData metaData;
  EXPECT_TRUE(throwsErrno(32, corruptMetaData("12307677"),
                          [&] { metaData.deserializeFromBuffer(bytes.data()); }));
}

TEST(MetaDataComparison, LooksAtBothFields) {
  const MetaData a;
  MetaData b;
  EXPECT_TRUE(a == b);
  EXPECT_FALSE(a != b);
  b.numEntries = 1;
  EXPECT_TRUE(a != b);
  EXPECT_FALSE(a == b);
  b = a;
  b.magic = 0;
  EXPECT_TRUE(a != b);
}

}  // namespace
}  // namespace orvane::test
