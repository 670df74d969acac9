#include "shm/utc.hpp"

#include <gtest/gtest.h>
#include <unistd.h>

#include "support/text.hpp"

namespace orvane::test {
namespace {

using tool::utcText;
using tool::utcTextForNames;

TEST(UtcTest, ShowsSeconds) {
  EXPECT_EQ(utcText(std::time_t{1795228344}), "2026-11-21T02:32:24Z");
  EXPECT_EQ(utcText(std::time_t{0}), "1970-01-01T00:00:00Z");
}

TEST(UtcTest, ShowsTheMillisecondsThatHavePassed) {
  EXPECT_EQ(utcText(std::timespec{1795228344, 123999999}), "2026-11-21T02:32:24.123Z");
  EXPECT_EQ(utcText(std::timespec{1795228344, 4000000}), "2026-11-21T02:32:24.004Z");
}

TEST(UtcTest, HasNoPunctuationInNames) {
  EXPECT_EQ(utcTextForNames(1795228344), "20261121T023224");
}

TEST(UtcTest, DoesNotDependOnTheTimeZone) {
  setenv("TZ", "XST+5", 1);
  tzset();
  EXPECT_EQ(utcText(std::time_t{0}), "1970-01-01T00:00:00Z");
  unsetenv("TZ");
  tzset();
}

TEST(UtcTest, ShowsAndReadsTheTimesOfManifests) {
  const tool::UtcTime time(std::chrono::milliseconds(1795228344123));
  EXPECT_EQ(utcText(time), "2026-11-21T02:32:24.123Z");
  EXPECT_EQ(utcTextForNames(time), "20261121T023224");
  EXPECT_EQ(tool::parseUtc("2026-11-21T02:32:24.123Z"), time);
  for (const char* text : {"1970-01-01T00:00:00.000Z", "2024-02-29T23:59:59.999Z",
                           "9999-12-31T23:59:59.999Z", "0000-01-01T00:00:00.000Z"}) {
    const auto read = tool::parseUtc(text);
    ASSERT_TRUE(read) << text;
    EXPECT_EQ(utcText(*read), text);
  }
}

TEST(UtcTest, ReadsNothingElse) {
  for (const char* text :
       {"", "2026-11-21T02:32:24Z", "2026-11-21T02:32:24.12Z", "2026-11-21T02:32:24.1234Z",
        "2026-11-21T02:32:24.123", "2026-11-21T02:32:24.123Zx", "2026-11-21 02:32:24.123Z",
        " 2026-11-21T02:32:24.123Z", "2026-00-21T02:32:24.123Z", "2026-13-21T02:32:24.123Z",
        "2026-11-31T02:32:24.123Z", "2025-02-29T02:32:24.123Z", "2026-11-21T24:00:00.000Z",
        "2026-11-21T02:60:24.123Z", "2026-11-21T02:32:60.123Z", "2026-1-21T02:32:24.123Z",
        "99999-11-21T02:32:24.123Z", "-2026-11-21T02:32:24.123Z", "-026-11-21T02:32:24.123Z"}) {
    EXPECT_FALSE(tool::parseUtc(text)) << text;
  }
}

TEST(UtcTest, TellsTheTimeNow) {
  const auto before = std::chrono::system_clock::now() - std::chrono::milliseconds(1);
  const tool::UtcTime now = tool::utcNow();
  EXPECT_LE(before, now);
  EXPECT_LE(now, std::chrono::system_clock::now());
}

TEST(UtcTest, NamesTheTimeNowAndThisProcess) {
  const std::time_t before = std::time(nullptr);
  const std::string name = tool::timeAndProcess();
  const std::string process = "-" + std::to_string(getpid());
  EXPECT_TRUE(matches(name, "[0-9]{8}T[0-9]{6}" + process));
  EXPECT_GE(name, utcTextForNames(before) + process);
  EXPECT_LE(name, utcTextForNames(std::time(nullptr)) + process);
}

}  // namespace
}  // namespace orvane::test
