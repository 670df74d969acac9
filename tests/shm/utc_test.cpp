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
