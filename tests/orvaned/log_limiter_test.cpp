// How much the log says about one subject, second by second.

#include "log_limiter.hpp"

#include <gtest/gtest.h>

namespace {

using orvaned::LogLimiter;
using orvaned::LogLine;
using std::chrono::milliseconds;

using Texts = std::vector<std::string>;

const LogLimiter::Clock::time_point kStart{std::chrono::hours(1)};

LogLine refusal(const std::string& subject, const std::string& message = "no room") {
  return {ox::Kind::warning, 1005, subject, "leases::refuse: " + message};
}

Texts textsOf(const std::vector<LogLine>& lines) {
  Texts texts;
  for (const LogLine& line : lines) {
    texts.push_back(line.text);
  }
  return texts;
}

class LogLimiterTest : public testing::Test {
 protected:
  // How many of these lines pass.
  unsigned admitted(const LogLine& line, unsigned times) {
    unsigned passed = 0;
    for (unsigned n = 0; n < times; ++n) {
      passed += limiter.admit(line, kStart) ? 1 : 0;
    }
    return passed;
  }
  Texts afterASecond() { return textsOf(limiter.due(kStart + milliseconds(1000))); }

  LogLimiter limiter;
};

TEST_F(LogLimiterTest, TwentyLinesOfOneCausePassInASecond) {
  EXPECT_EQ(admitted(refusal("user 7"), 20), 20U);
  EXPECT_EQ(admitted(refusal("user 7"), 1000), 0U);
}

TEST_F(LogLimiterTest, TheOthersAreCountedInALineWhenTheSecondIsOver) {
  admitted(refusal("user 7"), 20);
  admitted(refusal("user 7", "the 21st"), 1);
  admitted(refusal("user 7", "later"), 1233);
  EXPECT_EQ(textsOf(limiter.due(kStart + milliseconds(999))), Texts{});
  const std::vector<LogLine> lines = limiter.due(kStart + milliseconds(1000));
  ASSERT_EQ(textsOf(lines), Texts{"leases::refuse: user 7: 1234 more lines like this within a "
                                  "second; the first of them: the 21st"});
  EXPECT_EQ(lines[0].kind, ox::Kind::warning);
  EXPECT_EQ(lines[0].code, 1005);
  EXPECT_EQ(textsOf(limiter.due(kStart + milliseconds(5000))), Texts{});
}

TEST_F(LogLimiterTest, ASingleLineIsCountedInTheSingular) {
  admitted(refusal("user 7"), 21);
  EXPECT_EQ(afterASecond(), Texts{"leases::refuse: user 7: 1 more line like this within a second; "
                                  "the first of them: no room"});
}

TEST_F(LogLimiterTest, WhatAllPassedIsNotCounted) {
  admitted(refusal("user 7"), 20);
  EXPECT_EQ(afterASecond(), Texts{});
}

TEST_F(LogLimiterTest, EverySecondBeginsAnew) {
  admitted(refusal("user 7"), 21);
  EXPECT_EQ(afterASecond().size(), 1U);
  EXPECT_EQ(admitted(refusal("user 7"), 22), 20U);
  EXPECT_EQ(textsOf(limiter.due(kStart + milliseconds(2000))),
            Texts{"leases::refuse: user 7: 2 more lines like this within a second; the first of "
                  "them: no room"});
}

TEST_F(LogLimiterTest, ASecondBeginsWithItsFirstLine) {
  EXPECT_EQ(limiter.nextDue(), std::nullopt);
  admitted(refusal("user 7"), 1);
  EXPECT_EQ(limiter.nextDue(), kStart + milliseconds(1000));
  limiter.due(kStart + milliseconds(1000));
  EXPECT_EQ(limiter.nextDue(), std::nullopt);
}

TEST_F(LogLimiterTest, FinishTellsOfASecondThatIsNotOver) {
  admitted(refusal("user 7"), 21);
  EXPECT_EQ(limiter.finish().size(), 1U);
  EXPECT_EQ(limiter.nextDue(), std::nullopt);
}

TEST_F(LogLimiterTest, SubjectsAreLimitedOnTheirOwn) {
  EXPECT_EQ(admitted(refusal("user 7"), 1000), 20U);
  EXPECT_EQ(admitted(refusal("user 8"), 1000), 20U);
  EXPECT_EQ(afterASecond(), (Texts{"leases::refuse: user 7: 980 more lines like this within a "
                                   "second; the first of them: no room",
                                   "leases::refuse: user 8: 980 more lines like this within a "
                                   "second; the first of them: no room"}));
}

TEST_F(LogLimiterTest, KindCodeAndFunctionMakeACause) {
  EXPECT_EQ(admitted({ox::Kind::error, 1000, "user 7", "worker::take: a"}, 30), 20U);
  EXPECT_EQ(admitted({ox::Kind::warning, 1000, "user 7", "worker::take: a"}, 30), 20U);
  EXPECT_EQ(admitted({ox::Kind::error, 1001, "user 7", "worker::take: a"}, 30), 20U);
  EXPECT_EQ(admitted({ox::Kind::error, 1000, "user 7", "worker::open: a"}, 30), 20U);
  EXPECT_EQ(admitted({ox::Kind::error, 1000, "user 7", "worker::open: b"}, 30), 0U);
}

TEST_F(LogLimiterTest, TheServersOwnLinesAreNotLimited) {
  EXPECT_EQ(admitted(refusal(""), 1000), 1000U);
  EXPECT_EQ(limiter.nextDue(), std::nullopt);
}

TEST_F(LogLimiterTest, TraceLinesAreNotLimited) {
  for (const ox::Kind kind : {ox::Kind::trace, ox::Kind::enter, ox::Kind::leave}) {
    EXPECT_EQ(admitted({kind, 0, "user 7", "worker::take: a batch"}, 1000), 1000U);
  }
}

TEST_F(LogLimiterTest, InventedCausesPassNoMoreThanAHundredLinesOfASubject) {
  unsigned passed = 0;
  for (int code = 0; code < 1000; ++code) {
    passed += admitted({ox::Kind::error, code, "user 7", "a::b: c"}, 5);
  }
  EXPECT_EQ(passed, 100U);
  EXPECT_EQ(admitted(refusal("user 8"), 20), 20U);
}

TEST_F(LogLimiterTest, CausesBeyondThirtyTwoCountAsOne) {
  for (int code = 0; code < 1000; ++code) {
    admitted({ox::Kind::error, code, "user 7", "a::b: c" + std::to_string(code)}, 2);
  }
  // The first 32 causes passed 64 lines, the others 20 together.
  EXPECT_EQ(afterASecond(), Texts{"log::limit: user 7: 1916 more lines of other kinds within a "
                                  "second; the first of them: a::b: c42"});
}

TEST_F(LogLimiterTest, LongLinesPassNoMoreThan32KiBOfASubject) {
  const LogLine line = refusal("user 7", std::string(4096 - 16, 'x'));
  ASSERT_EQ(line.text.size(), 4096U);
  EXPECT_EQ(admitted(line, 20), 8U);
}

TEST_F(LogLimiterTest, TheExampleInACountIsCut) {
  admitted(refusal("user 7", std::string(4000, 'x')), 100);
  const Texts lines = afterASecond();
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_LT(lines[0].size(), 400U);
}

TEST_F(LogLimiterTest, ATextWithoutAFunctionIsCountedToo) {
  admitted({ox::Kind::error, 5, "user 7", std::string(100, 'x') + ": y"}, 21);
  EXPECT_EQ(afterASecond(), Texts{"log::limit: user 7: 1 more line like this within a second; the "
                                  "first of them: " +
                                  std::string(100, 'x') + ": y"});
}

TEST_F(LogLimiterTest, SubjectsBeyond256CountAsOne) {
  for (int user = 0; user < 256; ++user) {
    ASSERT_EQ(admitted(refusal("user " + std::to_string(user)), 1), 1U);
  }
  EXPECT_EQ(admitted(refusal("user 1000"), 15), 15U);
  EXPECT_EQ(admitted(refusal("user 1001"), 15), 5U);
  EXPECT_EQ(admitted(refusal("user 0"), 1), 1U);
  EXPECT_EQ(afterASecond(), Texts{"leases::refuse: other users: 10 more lines like this within a "
                                  "second; the first of them: no room"});
}

}  // namespace
