#include <gtest/gtest.h>

#include <ios>
#include <sstream>

#include "orvane/records.hpp"
#include "support/throws.hpp"
#include "support/wire.hpp"

namespace orvane::test {
namespace {

pvk_shm_message_t largestHeader() {
  pvk_shm_message_t header;
  header.type = 0xFFFFFFF1;
  header.len = 0xFFFFFFF2;
  header.seqNo = 0xFFFFFFFFFFFFFFF3;
  header.segmentNo = 0xFFFFFFFFFFFFFFF4;
  header.segmentDone = 0xFFFFFFF5;
  header.segAlg = 0xFFFFFFF6;
  header.segParam1 = 0xFFFFFFF7;
  header.segParam2 = 0xFFFFFFF8;
  header.segParam3 = 0xFFFFFFF9;
  header.magic = 0xFFFFFFFA;
  return header;
}

TEST(HeaderText, PrintsEveryFieldUnsigned) {
  std::ostringstream text;
  text << largestHeader();
  EXPECT_EQ(text.str(),
            "(18446744073709551603,4294967281,4294967282,4294967286,18446744073709551604,"
            "4294967285,4294967287,4294967288,4294967289,4294967290)");
}

TEST(HeaderText, PrintsNoSignWhereTheStreamShowsThem) {
  std::ostringstream text;
  text << std::showpos << pvk_shm_message_t() << 7;
  EXPECT_EQ(text.str(), "(0,0,0,0,0,1,0,0,0,2864434397)+7");
}

TEST(HeaderText, LeavesTheFormatOfTheStreamAlone) {
  for (const std::ios_base::fmtflags flags :
       {std::ios_base::fmtflags{}, std::ios_base::oct | std::ios_base::showpos,
        std::ios_base::hex | std::ios_base::showbase | std::ios_base::uppercase,
        std::ios_base::dec | std::ios_base::left | std::ios_base::boolalpha}) {
    std::ostringstream text;
    text.flags(flags);
    text.fill('*');
    text.precision(3);
    text << largestHeader();
    EXPECT_EQ(text.flags(), flags);
    EXPECT_EQ(text.fill(), '*');
    EXPECT_EQ(text.precision(), 3);
    EXPECT_EQ(text.width(), 0);
  }
}

TEST(HeaderText, FollowsUpperCaseAndOctal) {
  pvk_shm_message_t header;
  header.seqNo = 0xAB;
  std::ostringstream upper;
  upper << std::hex << std::uppercase << header;
  EXPECT_EQ(upper.str(), "(AB,0,0,0,0,1,0,0,0,AABBCCDD)");
  std::ostringstream octal;
  octal << std::oct << header;
  EXPECT_EQ(octal.str(), "(253,0,0,0,0,1,0,0,0,25256746335)");
}

TEST(Header, NamesAnUnsignedMagic) {
  const Bytes bytes(48, 0xFF);
  pvk_shm_message_t header;
  EXPECT_TRUE(throwsErrno(32,
                          "Could not deserialize pvk_shm_message from buffer because the magic "
                          "value 4294967295 is corrupt (expected=2864434397)",
                          [&] { header.deserializeFromBuffer(bytes.data()); }));
}

TEST(HeaderComparison, LooksAtTheWholeOfEveryField) {
  const pvk_shm_message_t a;
  const auto differs = [&a](auto pvk_shm_message_t::*field, auto bit) {
    pvk_shm_message_t b;
    b.*field ^= bit;
    return a != b && !(a == b);
  };
  for (const unsigned int bit : {1U << 8, 1U << 16, 1U << 31}) {
    EXPECT_TRUE(differs(&pvk_shm_message_t::type, bit));
    EXPECT_TRUE(differs(&pvk_shm_message_t::len, bit));
    EXPECT_TRUE(differs(&pvk_shm_message_t::segmentDone, bit));
    EXPECT_TRUE(differs(&pvk_shm_message_t::segAlg, bit));
    EXPECT_TRUE(differs(&pvk_shm_message_t::segParam1, bit));
    EXPECT_TRUE(differs(&pvk_shm_message_t::segParam2, bit));
    EXPECT_TRUE(differs(&pvk_shm_message_t::segParam3, bit));
    EXPECT_TRUE(differs(&pvk_shm_message_t::magic, bit));
  }
  EXPECT_TRUE(differs(&pvk_shm_message_t::seqNo, std::uint64_t{1} << 32));
  EXPECT_TRUE(differs(&pvk_shm_message_t::segmentNo, std::uint64_t{1} << 63));
}

}  // namespace
}  // namespace orvane::test
