#include "store/time_text.hpp"

#include <gtest/gtest.h>

#include <string>

namespace time_text {
namespace {

const tool::UtcTime kNow = *tool::parseUtc("2026-11-22T12:34:56.789Z");

// The time that a text means, as a text of its longest form.
std::string meant(const std::string& text) {
  const auto time = tool::timeIn(text, kNow);
  return time ? tool::utcText(*time) : "none";
}

TEST(TimeText, MayLeaveOutItsLastParts) {
  EXPECT_EQ(meant("2026-11-21"), "2026-11-21T00:00:00.000Z");
  EXPECT_EQ(meant("2026-11-21T02:32"), "2026-11-21T02:32:00.000Z");
  EXPECT_EQ(meant("2026-11-21T02:32:24"), "2026-11-21T02:32:24.000Z");
  EXPECT_EQ(meant("2026-11-21T02:32:24.123"), "2026-11-21T02:32:24.123Z");
  EXPECT_EQ(meant("2026-11-21T02:32:24.123Z"), "2026-11-21T02:32:24.123Z");
  EXPECT_EQ(meant("2026-11-21T02:32Z"), "2026-11-21T02:32:00.000Z");
}

TEST(TimeText, MayBeADaysName) {
  EXPECT_EQ(meant("today"), "2026-11-22T00:00:00.000Z");
  EXPECT_EQ(meant("yesterday"), "2026-11-21T00:00:00.000Z");
}

TEST(TimeText, MayBeADurationBeforeNow) {
  EXPECT_EQ(meant("0s"), "2026-11-22T12:34:56.789Z");
  EXPECT_EQ(meant("45s"), "2026-11-22T12:34:11.789Z");
  EXPECT_EQ(meant("30m"), "2026-11-22T12:04:56.789Z");
  EXPECT_EQ(meant("36h"), "2026-11-21T00:34:56.789Z");
  EXPECT_EQ(meant("7d"), "2026-11-15T12:34:56.789Z");
  EXPECT_TRUE(tool::timeIn("4294967295d", kNow) < kNow);
}

TEST(TimeText, IsNothingElse) {
  for (const char* text : {"",
                           "Z",
                           "2026",
                           "2026-11",
                           "2026-11-31",
                           "2026-13-01",
                           "2026-11-21 02:32",
                           "2026-11-21T24:00",
                           "2026-11-21T02:60",
                           "2026-11-21T02",
                           "2026-11-21T02:32:24.1",
                           "2026-11-21T02:32:24.123ZZ",
                           "20261121",
                           "tomorrow",
                           "2",
                           "h",
                           "2 h",
                           "2w",
                           "2hh",
                           "-2h",
                           "+2h",
                           "1.5h",
                           "4294967296d",
                           " 2h",
                           "2h "}) {
    EXPECT_EQ(meant(text), "none") << text;
  }
}

TEST(DurationText, HasANumberAndAUnit) {
  EXPECT_EQ(tool::durationIn("45s"), std::chrono::seconds(45));
  EXPECT_EQ(tool::durationIn("30m"), std::chrono::seconds(1800));
  EXPECT_EQ(tool::durationIn("2h"), std::chrono::seconds(7200));
  EXPECT_EQ(tool::durationIn("7d"), std::chrono::seconds(604800));
  EXPECT_EQ(tool::durationIn("yesterday"), std::nullopt);
  EXPECT_EQ(tool::durationIn("7"), std::nullopt);
}

}  // namespace
}  // namespace time_text
