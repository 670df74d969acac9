#include "store/broker_messages.hpp"

#include <gtest/gtest.h>

#include <span>
#include <string>
#include <utility>
#include <vector>

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

TEST(BrokerMessagesTest, HaveTheHeadOfAStreamAsOnePart) {
  const tool::StreamHead head{.queue = "orders",
                              .stream = "20261121T023224-4711_0",
                              .producer = tool::Producer{1000, 100, 4712, "my backup"},
                              .label = "app log",
                              .begun = tool::parseUtc("2026-11-21T02:32:24.123Z")};
  const std::string text = orvaned::textOf(head);
  EXPECT_EQ(text,
            "format=2\nqueue=orders\nstream=20261121T023224-4711_0\n"
            "producer=uid=1000 gid=100 pid=4712 executable=my%20backup\nlabel=app%20log\n"
            "begun=2026-11-21T02:32:24.123Z\n");
  EXPECT_EQ(orvaned::parseHead(text), head);
  const std::vector<std::string> parts = orvaned::partsOf(text + '\0' + "/path");
  EXPECT_EQ(parts, (std::vector<std::string>{text, "/path"}));
}

}  // namespace
}  // namespace orvane::test
