#include <gtest/gtest.h>

#include <sstream>
#include <type_traits>

#include "entries.hpp"
#include "orvane/batch.hpp"
#include "support/grouping_locale.hpp"
#include "support/wire.hpp"

namespace orvane::test {
namespace {

using Entry = ShmBatch::Entry;

// Bytes without a pattern that the two sums of the checksum could hide.
Bytes patternOf(std::size_t size) {
  Bytes bytes(size);
  for (std::size_t i = 0; i < size; ++i) {
    bytes[i] = static_cast<unsigned char>(i * 7 + 3);
  }
  return bytes;
}

// Callers may hand over the data's address where an entry is expected.
static_assert(std::is_convertible_v<const unsigned char*, Entry>);
const unsigned char* dataOf(const Entry& entry) {
  return entry.data;
}

TEST(Entry, IsMadeOfItsDataWithoutACast) {
  const Bytes data = bytesOf("hello");
  EXPECT_EQ(dataOf(data.data()), data.data());
}

TEST(Entry, CopiesTheHeaderAndKeepsThePointer) {
  const Bytes data = bytesOf("hello");
  pvk_shm_message_t header;
  header.seqNo = 7;
  header.len = 5;
  const Entry entry(header, data.data());
  header.seqNo = 8;
  EXPECT_EQ(entry.header.seqNo, 7U);
  EXPECT_EQ(entry.header.len, 5U);
  EXPECT_EQ(entry.header.magic, 0xAABBCCDDU);
  EXPECT_EQ(entry.data, data.data());
}

TEST(Entry, IsBuiltUncheckedFromALengthWithoutData) {
  pvk_shm_message_t header;
  header.len = 5;
  const Entry entry(header, nullptr);
  EXPECT_EQ(entry.header.len, 5U);
  EXPECT_EQ(entry.data, nullptr);
}

TEST(Entry, FromDataAloneHasAnAllZeroHeaderWithoutMagic) {
  const unsigned char byte = 1;
  const Entry entry(&byte);
  EXPECT_EQ(entry.data, &byte);
  EXPECT_EQ(entry.header.type, 0U);
  EXPECT_EQ(entry.header.len, 0U);
  EXPECT_EQ(entry.header.seqNo, 0U);
  EXPECT_EQ(entry.header.segmentNo, 0U);
  EXPECT_EQ(entry.header.segmentDone, 0U);
  EXPECT_EQ(entry.header.segAlg, 0U);
  EXPECT_EQ(entry.header.segParam1, 0U);
  EXPECT_EQ(entry.header.segParam2, 0U);
  EXPECT_EQ(entry.header.segParam3, 0U);
  EXPECT_EQ(entry.header.magic, 0U);
}

TEST(EntryText, WithoutDataHasNoCheckValue) {
  EXPECT_EQ(textOf(entryOf(3, {})), "type=3, len=0");
}

TEST(EntryText, WithoutDataIgnoresThePointer) {
  const unsigned char byte = 1;
  EXPECT_EQ(textOf(Entry(&byte)), "type=0, len=0");
}

TEST(EntryText, EndsWithTheCheckValueOfTheData) {
  EXPECT_EQ(textOf(entryOf(0, {0x61})), "type=0, len=1, crc=6422626");
  EXPECT_EQ(textOf(entryOf(1, bytesOf("hello"))), "type=1, len=5, crc=103547413");
  EXPECT_EQ(textOf(entryOf(1, bytesOf("Wikipedia"))), "type=1, len=9, crc=300286872");
}

TEST(EntryText, OfNullDataShowsTheStartingValue) {
  pvk_shm_message_t header;
  header.len = 4;
  EXPECT_EQ(textOf(Entry(header, nullptr)), "type=0, len=4, crc=1");
}

TEST(EntryText, ChecksOnlyTheBytesOfItsLength) {
  const Bytes data = bytesOf("hello world");
  pvk_shm_message_t header;
  header.len = 5;
  EXPECT_EQ(textOf(Entry(header, data.data())), "type=0, len=5, crc=103547413");
}

TEST(EntryText, ChecksTheBytesAsTheyAreWhenItPrints) {
  Bytes data = bytesOf("jello");
  const Entry entry = entryOf(1, data);
  data[0] = 'h';
  EXPECT_EQ(textOf(entry), "type=1, len=5, crc=103547413");
}

TEST(EntryText, ChecksDataAroundTheDeferredModulo) {
  EXPECT_EQ(textOf(entryOf(0, patternOf(5551))), "type=0, len=5551, crc=1318177395");
  EXPECT_EQ(textOf(entryOf(0, patternOf(5552))), "type=0, len=5552, crc=434096959");
  EXPECT_EQ(textOf(entryOf(0, patternOf(5553))), "type=0, len=5553, crc=3857828882");
  EXPECT_EQ(textOf(entryOf(0, patternOf(11104))), "type=0, len=11104, crc=1096783756");
  EXPECT_EQ(textOf(entryOf(0, patternOf(11105))), "type=0, len=11105, crc=3650000943");
  EXPECT_EQ(textOf(entryOf(0, patternOf(100000))), "type=0, len=100000, crc=771462159");
}

TEST(EntryText, ChecksTheLargestBytesWithoutOverflow) {
  EXPECT_EQ(textOf(entryOf(0, Bytes(1, 0xFF))), "type=0, len=1, crc=16777472");
  EXPECT_EQ(textOf(entryOf(0, Bytes(5552, 0xFF))), "type=0, len=5552, crc=4052720524");
  EXPECT_EQ(textOf(entryOf(0, Bytes(5553, 0xFF))), "type=0, len=5553, crc=2385091723");
  EXPECT_EQ(textOf(entryOf(0, Bytes(20000, 0xFF))), "type=0, len=20000, crc=2672940644");
  EXPECT_EQ(textOf(entryOf(0, Bytes(131072, 0xFF))), "type=0, len=131072, crc=3478920675");
  EXPECT_EQ(textOf(entryOf(0, Bytes(1000000, 0xFF))), "type=0, len=1000000, crc=943972798");
}

TEST(EntryText, ChecksZeroBytesToo) {
  EXPECT_EQ(textOf(entryOf(0, Bytes(70000))), "type=0, len=70000, crc=293535745");
}

TEST(EntryText, PrintsItsNumbersUnsigned) {
  EXPECT_EQ(textOf(entryOf(0xFFFFFFFF, {})), "type=4294967295, len=0");
}

TEST(EntryText, FollowsTheFlagsOfTheStreamAndReturnsIt) {
  const Bytes data = {0x61};
  std::ostringstream text;
  text << std::hex;
  EXPECT_EQ(&(text << entryOf(255, data)), &text);
  text << ' ' << 16;
  EXPECT_EQ(text.str(), "type=ff, len=1, crc=620062 10");
}

TEST(EntryText, FollowsTheLocaleOfTheStream) {
  const Bytes data(5552, 0xFF);
  std::ostringstream text;
  text.imbue(groupingLocale());
  text << entryOf(1234, data);
  EXPECT_EQ(text.str(), "type=1'234, len=5'552, crc=4'052'720'524");
}

TEST(EntryComparison, LooksAtTheHeaderAndTheBytesNotThePointer) {
  const Bytes hello = bytesOf("hello");
  const Bytes again = bytesOf("hello");
  const Bytes jello = bytesOf("jello");
  EXPECT_TRUE(entryOf(1, hello) == entryOf(1, again));
  EXPECT_FALSE(entryOf(1, hello) != entryOf(1, again));
  EXPECT_TRUE(entryOf(1, hello) != entryOf(2, again));
  EXPECT_FALSE(entryOf(1, hello) == entryOf(2, again));
  EXPECT_TRUE(entryOf(1, hello) != entryOf(1, jello));
  EXPECT_TRUE(entryOf(1, hello) != entryOf(1, bytesOf("hell")));
}

TEST(EntryComparison, WithoutDataIgnoresThePointers) {
  const unsigned char byte = 1;
  EXPECT_TRUE(Entry(pvk_shm_message_t(), &byte) == Entry(pvk_shm_message_t(), nullptr));
}

TEST(EntryComparison, ToNullDataOfALengthIsSafe) {
  const Bytes hello = bytesOf("hello");
  pvk_shm_message_t header = entryOf(1, hello).header;
  EXPECT_TRUE(entryOf(1, hello) != Entry(header, nullptr));
  EXPECT_TRUE(Entry(header, nullptr) != entryOf(1, hello));
  EXPECT_TRUE(Entry(header, nullptr) == Entry(header, nullptr));
}

}  // namespace
}  // namespace orvane::test
