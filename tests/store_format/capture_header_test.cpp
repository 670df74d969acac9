#include "store_format/capture_header.hpp"

#include <gtest/gtest.h>

#include "support/wire.hpp"

namespace {

using orvane::test::Bytes;
using orvane::test::hex;
using tool::parseCaptureHeader;

TEST(CaptureHeader, IsSixteenBigEndianBytes) {
  const auto bytes = bytesOf(tool::CaptureHeader{0x01020304, 0x1112131415161718});
  EXPECT_EQ(Bytes(bytes.begin(), bytes.end()),
            hex("4f 52 56 43 01 02 03 04 11 12 13 14 15 16 17 18"));
}

TEST(CaptureHeader, IsReadBackUpToWhatAServerCanWrite) {
  const auto header = parseCaptureHeader(hex("4f525643 000000c8 0000000040000000").data());
  ASSERT_TRUE(header);
  EXPECT_EQ(header->queueSize, 200U);
  EXPECT_EQ(header->messageSize, 1073741824U);
}

TEST(CaptureHeader, ThatNoServerCanWriteIsNone) {
  EXPECT_FALSE(parseCaptureHeader(hex("4f525643 000000c9 0000000040000000").data()));
  EXPECT_FALSE(parseCaptureHeader(hex("4f525643 000000c8 0000000040000001").data()));
  EXPECT_FALSE(parseCaptureHeader(hex("4f525644 000000c8 0000000040000000").data()));
}

}  // namespace
