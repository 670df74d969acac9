#include "store_format/stream_head.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace stream_head {
namespace {

using testing::ElementsAre;
using tool::Producer;
using tool::StreamHead;
using tool::StreamHeadParser;

using Lines = std::vector<std::string>;

constexpr char kStream[] = "20261121T023224-4711_0";
const StreamHead kWholeHead{.queue = "orders",
                            .stream = kStream,
                            .producer = Producer{1000, 100, 4712, "my backup"},
                            .label = "app log",
                            .begun = tool::parseUtc("2026-11-21T02:32:24.123Z")};
const Lines kLines = {"format=2",
                      "queue=orders",
                      "stream=20261121T023224-4711_0",
                      "producer=uid=1000 gid=100 pid=4712 executable=my%20backup",
                      "label=app%20log",
                      "begun=2026-11-21T02:32:24.123Z"};

// Takes the lines until one is refused; returns how many were taken.
std::size_t take(const Lines& lines, StreamHeadParser& parser) {
  std::size_t taken = 0;
  while (taken < lines.size() && parser.take(lines[taken])) {
    ++taken;
  }
  return taken;
}

TEST(StreamHead, HasALineForEachThingThatIsKnown) {
  EXPECT_EQ(linesOf(kWholeHead), kLines);
  EXPECT_THAT(linesOf(StreamHead{.queue = "orders", .stream = kStream}),
              ElementsAre("format=2", "queue=orders", "stream=20261121T023224-4711_0"));
  EXPECT_THAT(
      linesOf(StreamHead{.queue = "q", .stream = "s", .producer = Producer{4294967295, 0, 0, ""}}),
      ElementsAre("format=2", "queue=q", "stream=s", "producer=uid=4294967295 gid=0 pid=0"));
}

TEST(StreamHead, HasThreeLinesInFormat1) {
  StreamHead first = kWholeHead;
  first.format = 1;
  EXPECT_THAT(linesOf(first),
              ElementsAre("format=1", "queue=orders", "stream=20261121T023224-4711_0"));
}

TEST(StreamHead, IsReadBack) {
  const StreamHead unknown{.queue = "orders", .stream = kStream, .begun = kWholeHead.begun};
  const StreamHead unlabelled{.queue = "orders",
                              .stream = kStream,
                              .producer = Producer{4294967295, 1, 2147483647, ""},
                              .begun = kWholeHead.begun};
  for (const StreamHead& head : {kWholeHead, unknown, unlabelled}) {
    StreamHeadParser parser;
    EXPECT_EQ(take(linesOf(head), parser), linesOf(head).size());
    EXPECT_EQ(parser.head(), head);
    EXPECT_TRUE(parser.isComplete());
  }
  StreamHeadParser parser;
  EXPECT_EQ(take({"format=1", "queue=q", "stream=s"}, parser), 3U);
  EXPECT_EQ(parser.head(), (StreamHead{.format = 1, .queue = "q", .stream = "s"}));
  EXPECT_TRUE(parser.isComplete());
}

TEST(StreamHead, IsValidWithTheStreamAndCompleteWithTheTime) {
  StreamHeadParser parser;
  for (std::size_t i = 0; i < kLines.size(); ++i) {
    EXPECT_EQ(parser.isValid(), i >= 3) << i;
    EXPECT_FALSE(parser.isComplete()) << i;
    EXPECT_TRUE(parser.take(kLines[i])) << i;
  }
  EXPECT_TRUE(parser.isComplete());
}

TEST(StreamHead, EndsWithTheFirstOtherLine) {
  StreamHeadParser parser;
  take(kLines, parser);
  for (const char* line : {"skipped=0", "", "format=2", "queue=orders", "label=app%20log",
                           "begun=2026-11-21T02:32:24.123Z", "begun=2026-11-21T02:32:24.124Z"}) {
    EXPECT_FALSE(parser.take(line)) << line;
    EXPECT_EQ(parser.head(), kWholeHead) << line;
  }
}

TEST(StreamHead, HasItsLinesInOneOrder) {
  for (std::size_t i = 0; i + 1 < kLines.size(); ++i) {
    Lines swapped = kLines;
    std::swap(swapped[i], swapped[i + 1]);
    StreamHeadParser parser;
    EXPECT_LE(take(swapped, parser), i + 1) << i;
  }
}

class NoHeadLine : public testing::TestWithParam<const char*> {};

TEST_P(NoHeadLine, IsNotTaken) {
  StreamHeadParser parser;
  take({"format=2", "queue=orders", "stream=s"}, parser);
  EXPECT_FALSE(parser.take(GetParam()));
  EXPECT_EQ(parser.head(), (StreamHead{.queue = "orders", .stream = "s"}));
}

INSTANTIATE_TEST_SUITE_P(
    Text, NoHeadLine,
    testing::Values("", "producer=", "producer=uid=1 gid=2", "producer=uid=1 pid=3 gid=2",
                    "producer=uid=-1 gid=2 pid=3", "producer=uid=01 gid=2 pid=3",
                    "producer=uid=4294967296 gid=2 pid=3", "producer=uid=1 gid=2 pid=2147483648",
                    "producer=uid=1 gid=2 pid=3 ", "producer=uid=1 gid=2 pid=3 executable=",
                    "producer=uid=1 gid=2 pid=3 executable=a b",
                    "producer=uid=1 gid=2 pid=3 executable=a%2", "producer=uid=1 gid=2 pid=3 x=y",
                    "label=", "label=a b", "label=%61", "begun=", "begun=2026-11-21T02:32:24Z",
                    "begun=2026-13-21T02:32:24.123Z", "begun=2026-02-30T02:32:24.123Z",
                    "begun=2026-11-21T24:32:24.123Z", "begun=2026-11-21T02:32:24.123"));

TEST(StreamHead, OfAnotherFormatIsNotTaken) {
  for (const char* line : {"", "format=", "format=0", "format=3", "format=02", "queue=orders"}) {
    StreamHeadParser parser;
    EXPECT_FALSE(parser.take(line)) << line;
  }
}

}  // namespace
}  // namespace stream_head
