#include "orvane/receipt.hpp"

#include <gtest/gtest.h>

#include <string>
#include <utility>

namespace {

using orvane::parseReceipt;
using orvane::Receipt;
using orvane::StreamEnd;

const Receipt kReceipt{"20261121T023224-4711_0", 12, 1048576, 2, StreamEnd::closed};
constexpr char kText[] =
    "receipt stream=20261121T023224-4711_0 records=12 bytes=1048576 segments=2 end=closed";

TEST(Receipt, HasItsTextForm) {
  EXPECT_EQ(textOf(kReceipt), kText);
}

TEST(Receipt, IsReadBackFromItsText) {
  EXPECT_EQ(parseReceipt(kText), kReceipt);
}

TEST(Receipt, KeepsNumbersOf64Bits) {
  const Receipt large{"s", 18446744073709551615U, 18446744073709551614U, 18446744073709551613U,
                      StreamEnd::broken};
  EXPECT_EQ(parseReceipt("receipt stream=s records=18446744073709551615 "
                         "bytes=18446744073709551614 segments=18446744073709551613 end=broken"),
            large);
}

TEST(Receipt, HasAWordForEachEnd) {
  const std::string start = "receipt stream=s records=0 bytes=0 segments=0 end=";
  const std::pair<StreamEnd, std::string> ends[] = {{StreamEnd::closed, "closed"},
                                                    {StreamEnd::stopped, "stopped"},
                                                    {StreamEnd::cutOff, "cut-off"},
                                                    {StreamEnd::broken, "broken"}};
  for (const auto& [end, word] : ends) {
    const Receipt receipt{"s", 0, 0, 0, end};
    EXPECT_EQ(textOf(end), word);
    EXPECT_EQ(textOf(receipt), start + word);
    EXPECT_EQ(parseReceipt(start + word), receipt);
  }
}

TEST(ReceiptComparison, LooksAtEveryField) {
  EXPECT_TRUE(kReceipt == kReceipt);
  EXPECT_FALSE(kReceipt != kReceipt);
  const Receipt others[] = {{"20261121T023224-4711_1", 12, 1048576, 2, StreamEnd::closed},
                            {"20261121T023224-4711_0", 13, 1048576, 2, StreamEnd::closed},
                            {"20261121T023224-4711_0", 12, 1048577, 2, StreamEnd::closed},
                            {"20261121T023224-4711_0", 12, 1048576, 3, StreamEnd::closed},
                            {"20261121T023224-4711_0", 12, 1048576, 2, StreamEnd::stopped}};
  for (const Receipt& other : others) {
    EXPECT_FALSE(kReceipt == other);
    EXPECT_TRUE(kReceipt != other);
  }
}

class NoReceipt : public testing::TestWithParam<const char*> {};

TEST_P(NoReceipt, IsNotTakenForOne) {
  EXPECT_EQ(parseReceipt(GetParam()), std::nullopt);
}

INSTANTIATE_TEST_SUITE_P(
    Text, NoReceipt,
    testing::Values("", "receipt", "receipt stream=", "the server was stopped",
                    "receipt stream=s records=1 bytes=2 segments=3",
                    "receipt stream=s records=1 bytes=2 segments=3 end=",
                    "receipt stream=s records=1 bytes=2 segments=3 end=lost",
                    "receipt stream=s records=1 bytes=2 segments=3 end=closed ",
                    "receipt stream=s records=1 bytes=2 segments=3 end=closed more",
                    "receipt stream= records=1 bytes=2 segments=3 end=closed",
                    "receipt stream=s records= bytes=2 segments=3 end=closed",
                    "receipt stream=s records=1x bytes=2 segments=3 end=closed",
                    "receipt stream=s records=-1 bytes=2 segments=3 end=closed",
                    "receipt stream=s records=1 bytes=18446744073709551616 segments=3 end=closed",
                    "receipt stream=s records=1 bytes=2 segments=x end=closed",
                    "receipt stream=s bytes=2 records=1 segments=3 end=closed",
                    " receipt stream=s records=1 bytes=2 segments=3 end=closed"));

}  // namespace
