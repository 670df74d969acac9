#include <gtest/gtest.h>

#include <sstream>
#include <type_traits>

#include "orvane/records.hpp"
#include "support/grouping_locale.hpp"
#include "support/throws.hpp"
#include "support/wire.hpp"

namespace orvane::test {
namespace {

static_assert(!std::is_polymorphic_v<pvk_shm_message_t>);
static_assert(std::is_trivially_copyable_v<pvk_shm_message_t>);
static_assert(std::is_standard_layout_v<pvk_shm_message_t>);
static_assert(std::is_same_v<decltype(pvk_shm_message_t().getSerializedSize()), unsigned long>);

// Every byte of its serialized form is different: 1 to 48.
pvk_shm_message_t countingHeader() {
  pvk_shm_message_t header;
  header.type = 0x01020304;
  header.len = 0x05060708;
  header.seqNo = 0x090A0B0C0D0E0F10;
  header.segmentNo = 0x1112131415161718;
  header.segmentDone = 0x191A1B1C;
  header.segAlg = 0x1D1E1F20;
  header.segParam1 = 0x21222324;
  header.segParam2 = 0x25262728;
  header.segParam3 = 0x292A2B2C;
  header.magic = 0x2D2E2F30;
  return header;
}

const Bytes kCountingBytes =
    hex("01020304 05060708 090a0b0c0d0e0f10 1112131415161718 191a1b1c 1d1e1f20"
        "21222324 25262728 292a2b2c 2d2e2f30");

void expectCountingFields(const pvk_shm_message_t& header) {
  EXPECT_EQ(header.type, 0x01020304U);
  EXPECT_EQ(header.len, 0x05060708U);
  EXPECT_EQ(header.seqNo, 0x090A0B0C0D0E0F10U);
  EXPECT_EQ(header.segmentNo, 0x1112131415161718U);
  EXPECT_EQ(header.segmentDone, 0x191A1B1CU);
  EXPECT_EQ(header.segAlg, 0x1D1E1F20U);
  EXPECT_EQ(header.segParam1, 0x21222324U);
  EXPECT_EQ(header.segParam2, 0x25262728U);
  EXPECT_EQ(header.segParam3, 0x292A2B2CU);
}

std::string corruptRecordHeader(const std::string& magic) {
  return "Could not deserialize pvk_shm_message from buffer because the magic value " + magic +
         " is corrupt (expected=2864434397)";
}

TEST(Header, StartsWithItsDefaults) {
  const pvk_shm_message_t header;
  EXPECT_EQ(header.type, 0U);
  EXPECT_EQ(header.len, 0U);
  EXPECT_EQ(header.seqNo, 0U);
  EXPECT_EQ(header.segmentNo, 0U);
  EXPECT_EQ(header.segmentDone, 1U);
  EXPECT_EQ(header.segAlg, 0U);
  EXPECT_EQ(header.segParam1, 0U);
  EXPECT_EQ(header.segParam2, 0U);
  EXPECT_EQ(header.segParam3, 0U);
  EXPECT_EQ(header.magic, 0xAABBCCDDU);
}

TEST(Header, IsAlways48BytesSerialized) {
  EXPECT_EQ(pvk_shm_message_t::getSerializedSize(), 48U);
  pvk_shm_message_t large = countingHeader();
  EXPECT_EQ(large.getSerializedSize(), 48U);
}

TEST(Header, SerializesEveryFieldBigEndianAtItsOffset) {
  Bytes bytes(48);
  EXPECT_EQ(countingHeader().serializeToBuffer(bytes.data()), bytes.data() + 48);
  EXPECT_EQ(bytes, kCountingBytes);
}

TEST(Header, SerializesNoByteOutsideIts48) {
  Bytes bytes(50, 0xEE);
  countingHeader().serializeToBuffer(bytes.data() + 1);
  EXPECT_EQ(bytes.front(), 0xEE);
  EXPECT_EQ(bytes.back(), 0xEE);
}

TEST(Header, DefaultSerializesToZerosButSegmentDoneAndMagic) {
  Bytes bytes(48, 0xEE);
  pvk_shm_message_t().serializeToBuffer(bytes.data());
  EXPECT_EQ(bytes, hex("00000000 00000000 0000000000000000 0000000000000000 00000001 00000000"
                       "00000000 00000000 00000000 aabbccdd"));
}

TEST(Header, ReadsEveryFieldFromItsOffset) {
  Bytes bytes = kCountingBytes;
  const Bytes magic = hex("aabbccdd");
  std::copy(magic.begin(), magic.end(), bytes.begin() + 44);
  pvk_shm_message_t header;
  header.magic = 0;
  EXPECT_EQ(header.deserializeFromBuffer(bytes.data()), bytes.data() + 48);
  expectCountingFields(header);
  EXPECT_EQ(header.magic, 0xAABBCCDDU);
}

TEST(Header, ReadsAndWritesAtAnyAlignment) {
  pvk_shm_message_t written = countingHeader();
  written.magic = 0xAABBCCDD;
  for (std::size_t shift = 0; shift < 8; ++shift) {
    Bytes bytes(56);
    written.serializeToBuffer(bytes.data() + shift);
    pvk_shm_message_t read;
    read.deserializeFromBuffer(bytes.data() + shift);
    expectCountingFields(read);
  }
}

TEST(Header, ComesBackEqualWithAll64BitsInUse) {
  pvk_shm_message_t written;
  written.type = 0xFFFFFFFF;
  written.seqNo = 0xFFFFFFFFFFFFFFFF;
  written.segmentNo = 0x8000000000000001;
  Bytes bytes(48);
  written.serializeToBuffer(bytes.data());
  pvk_shm_message_t read;
  read.deserializeFromBuffer(bytes.data());
  EXPECT_EQ(read.seqNo, 0xFFFFFFFFFFFFFFFFU);
  EXPECT_EQ(read.segmentNo, 0x8000000000000001U);
  EXPECT_TRUE(read == written);
}

TEST(Header, RejectsZeroBytesAndHoldsThem) {
  const Bytes zeros(48);
  pvk_shm_message_t header = countingHeader();
  EXPECT_TRUE(throwsErrno(32, corruptRecordHeader("0"),
                          [&] { header.deserializeFromBuffer(zeros.data()); }));
  EXPECT_EQ(header.type, 0U);
  EXPECT_EQ(header.len, 0U);
  EXPECT_EQ(header.seqNo, 0U);
  EXPECT_EQ(header.segmentNo, 0U);
  EXPECT_EQ(header.segmentDone, 0U);
  EXPECT_EQ(header.segAlg, 0U);
  EXPECT_EQ(header.segParam1, 0U);
  EXPECT_EQ(header.segParam2, 0U);
  EXPECT_EQ(header.segParam3, 0U);
  EXPECT_EQ(header.magic, 0U);
}

TEST(Header, KeepsWhatWasReadWhenTheMagicIsCorrupt) {
  pvk_shm_message_t header;
  EXPECT_TRUE(throwsErrno(32, corruptRecordHeader("758001456"),
                          [&] { header.deserializeFromBuffer(kCountingBytes.data()); }));
  expectCountingFields(header);
  EXPECT_EQ(header.magic, 0x2D2E2F30U);
}

TEST(Header, NamesTheMagicThatWasRead) {
  Bytes bytes(48);
  bytes[47] = 1;
  pvk_shm_message_t header;
  EXPECT_TRUE(throwsErrno(32, corruptRecordHeader("1"),
                          [&] { header.deserializeFromBuffer(bytes.data()); }));
}

TEST(Header, RejectsEverySingleFlippedBitOfTheMagic) {
  for (std::size_t bit = 0; bit < 32; ++bit) {
    Bytes bytes(48);
    pvk_shm_message_t().serializeToBuffer(bytes.data());
    bytes[44 + bit / 8] ^= static_cast<unsigned char>(1U << bit % 8);
    pvk_shm_message_t header;
    EXPECT_ANY_THROW(header.deserializeFromBuffer(bytes.data())) << "bit " << bit;
  }
}

TEST(Header, WritesPlainDecimalsIntoItsExceptionUnderAGroupingGlobalLocale) {
  const GlobalGroupingLocale grouping;
  pvk_shm_message_t header;
  EXPECT_TRUE(throwsErrno(32, corruptRecordHeader("758001456"),
                          [&] { header.deserializeFromBuffer(kCountingBytes.data()); }));
}

TEST(HeaderText, OfADefaultHeader) {
  std::ostringstream text;
  text << pvk_shm_message_t();
  EXPECT_EQ(text.str(), "(0,0,0,0,0,1,0,0,0,2864434397)");
}

TEST(HeaderText, HasItsOwnFieldOrder) {
  pvk_shm_message_t header;
  header.seqNo = 1;
  header.type = 2;
  header.len = 3;
  header.segAlg = 4;
  header.segmentNo = 5;
  header.segmentDone = 6;
  header.segParam1 = 7;
  header.segParam2 = 8;
  header.segParam3 = 9;
  header.magic = 10;
  std::ostringstream text;
  EXPECT_EQ(&(text << header), &text);
  EXPECT_EQ(text.str(), "(1,2,3,4,5,6,7,8,9,10)");
}

TEST(HeaderText, PrintsLargeValuesUnsigned) {
  pvk_shm_message_t header;
  header.seqNo = 0xFFFFFFFFFFFFFFFF;
  header.segmentNo = 0x8000000000000000;
  header.segAlg = 0xFFFFFFFF;
  std::ostringstream text;
  text << header;
  EXPECT_EQ(text.str(),
            "(18446744073709551615,0,0,4294967295,9223372036854775808,1,0,0,0,2864434397)");
}

TEST(HeaderText, FollowsTheFlagsOfTheStreamAndLeavesThemAlone) {
  pvk_shm_message_t header;
  header.seqNo = 255;
  std::ostringstream text;
  text << std::hex << std::showbase << header << ' ' << 16;
  EXPECT_EQ(text.str(), "(0xff,0,0,0,0,0x1,0,0,0,0xaabbccdd) 0x10");
}

TEST(HeaderText, FollowsTheLocaleOfTheStream) {
  std::ostringstream text;
  text.imbue(groupingLocale());
  text << pvk_shm_message_t();
  EXPECT_EQ(text.str(), "(0,0,0,0,0,1,0,0,0,2'864'434'397)");
}

TEST(HeaderComparison, LooksAtEveryField) {
  const pvk_shm_message_t a;
  EXPECT_TRUE(a == pvk_shm_message_t());
  EXPECT_FALSE(a != pvk_shm_message_t());
  const auto differs = [&a](auto pvk_shm_message_t::*field) {
    pvk_shm_message_t b;
    b.*field += 1;
    return a != b && !(a == b);
  };
  EXPECT_TRUE(differs(&pvk_shm_message_t::type));
  EXPECT_TRUE(differs(&pvk_shm_message_t::len));
  EXPECT_TRUE(differs(&pvk_shm_message_t::seqNo));
  EXPECT_TRUE(differs(&pvk_shm_message_t::segmentNo));
  EXPECT_TRUE(differs(&pvk_shm_message_t::segmentDone));
  EXPECT_TRUE(differs(&pvk_shm_message_t::segAlg));
  EXPECT_TRUE(differs(&pvk_shm_message_t::segParam1));
  EXPECT_TRUE(differs(&pvk_shm_message_t::segParam2));
  EXPECT_TRUE(differs(&pvk_shm_message_t::segParam3));
  EXPECT_TRUE(differs(&pvk_shm_message_t::magic));
}

}  // namespace
}  // namespace orvane::test
