#include "store/broker_messages.hpp"

#include <gtest/gtest.h>

#include <span>
#include <utility>

namespace orvane::test {
namespace {

using orvaned::BrokerArea;
using orvaned::BrokerCall;

TEST(BrokerMessagesTest, AreRefusedWhenTheyAreNone) {
  const auto good = orvaned::bytesOf({.serial = 1,
                                      .call = BrokerCall::rename,
                                      .area = BrokerArea::stream,
                                      .number = 5,
                                      .name = "from",
                                      .other = "to"});
  ASSERT_EQ(good.size(), 30U);
  ASSERT_TRUE(orvaned::parseRequest(good));
  EXPECT_EQ(orvaned::parseRequest(good)->name, "from");
  EXPECT_EQ(orvaned::parseRequest(good)->other, "to");
  EXPECT_FALSE(orvaned::parseRequest(std::span(good).first(23)));
  for (const auto& [offset, value] : {std::pair(4, 12), std::pair(8, 2), std::pair(12, 7)}) {
    auto bad = good;
    bad[static_cast<std::size_t>(offset)] = static_cast<unsigned char>(value);
    EXPECT_FALSE(orvaned::parseRequest(bad)) << offset;
  }
}

}  // namespace
}  // namespace orvane::test
