#include "orvane/logger.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <deque>
#include <limits>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "support/allocations.hpp"
#include "support/grouping_locale.hpp"

namespace {

struct Call {
  std::string function;
  int code;
  std::string format;  // before anything is filled in

  bool operator==(const Call&) const = default;
};

void PrintTo(const Call& call, std::ostream* stream) {
  *stream << call.function << "(" << call.code << ", \"" << call.format << "\")";
}

thread_local std::vector<Call> calls;
thread_local std::deque<bool> traceAnswers;  // what TraceOn answers next; false when none is left
thread_local int traceQuestions = 0;

}  // namespace

#define ORVANE_EXPORTED extern "C" __attribute__((visibility("default")))

ORVANE_EXPORTED void InfoA(int code, const char* format, ...) {
  calls.push_back({"InfoA", code, format});
}
ORVANE_EXPORTED void AuthA(int code, const char* format, ...) {
  calls.push_back({"AuthA", code, format});
}
ORVANE_EXPORTED void WarningA(int code, const char* format, ...) {
  calls.push_back({"WarningA", code, format});
}
ORVANE_EXPORTED void ErrorA(int code, const char* format, ...) {
  calls.push_back({"ErrorA", code, format});
}
ORVANE_EXPORTED void __Trace(const char* format, ...) {
  calls.push_back({"__Trace", 0, format});
}
ORVANE_EXPORTED bool TraceOn() {
  ++traceQuestions;
  if (traceAnswers.empty()) {
    return false;
  }
  const bool answer = traceAnswers.front();
  traceAnswers.pop_front();
  return answer;
}

namespace orvane::server {
namespace {

class LoggerTest : public testing::Test {
 protected:
  void SetUp() override {
    calls.clear();
    traceAnswers.clear();
    traceQuestions = 0;
  }
  static std::vector<Call> take() { return std::exchange(calls, {}); }
};

TEST_F(LoggerTest, UnnamedLoggerWritesFunctionAndMessage) {
  Logger("").log(LEVEL_INFO, "open", 0, "x");
  EXPECT_EQ(take(), (std::vector<Call>{{"InfoA", 0, "open: x"}}));
}

TEST_F(LoggerTest, NamedLoggerPutsItsNameInFront) {
  Logger("shm").log(LEVEL_INFO, "open", 0, "x");
  EXPECT_EQ(take(), (std::vector<Call>{{"InfoA", 0, "shm::open: x"}}));
}

// Callers may hand over a name where a logger is expected.
static_assert(std::is_convertible_v<std::string, Logger>);
void logThrough(const Logger& log) {
  log.log(LEVEL_INFO, "open", 0, "x");
}

TEST_F(LoggerTest, IsMadeOfANameWithoutACast) {
  logThrough(std::string("shm"));
  EXPECT_EQ(take(), (std::vector<Call>{{"InfoA", 0, "shm::open: x"}}));
}

TEST_F(LoggerTest, EachLevelHasItsOwnSink) {
  const Logger logger("n");
  logger.log(LEVEL_INFO, "f", 1, "m");
  logger.log(LEVEL_AUTH, "f", 2, "m");
  logger.log(LEVEL_WARNING, "f", 3, "m");
  logger.log(LEVEL_ERROR, "f", 4, "m");
  EXPECT_EQ(take(), (std::vector<Call>{{"InfoA", 1, "n::f: m"},
                                       {"AuthA", 2, "n::f: m"},
                                       {"WarningA", 3, "n::f: m"},
                                       {"ErrorA", 4, "n::f: m"}}));
}

TEST_F(LoggerTest, LevelsAreNumberedOneToFourInAFixedUnderlyingType) {
  EXPECT_EQ(LEVEL_INFO, 1);
  EXPECT_EQ(LEVEL_AUTH, 2);
  EXPECT_EQ(LEVEL_WARNING, 3);
  EXPECT_EQ(LEVEL_ERROR, 4);
  EXPECT_TRUE((std::is_same_v<std::underlying_type_t<OrvanServerLoglevel>, int>));
}

TEST_F(LoggerTest, OtherLevelsCallNoSink) {
  for (const int level : {0, 5, 99, -1, std::numeric_limits<int>::min()}) {
    Logger("n").log(static_cast<OrvanServerLoglevel>(level), "f", 0, "m");
  }
  EXPECT_EQ(take(), std::vector<Call>{});
}

TEST_F(LoggerTest, CodeReachesTheSinkUnchanged) {
  const std::vector<int> codes = {0, -1, std::numeric_limits<int>::min(),
                                  std::numeric_limits<int>::max()};
  for (const int code : codes) {
    Logger("").log(LEVEL_ERROR, "f", code, "m");
  }
  const std::vector<Call> seen = take();
  ASSERT_EQ(seen.size(), codes.size());
  for (std::size_t i = 0; i < codes.size(); ++i) {
    EXPECT_EQ(seen[i].code, codes[i]);
  }
}

TEST_F(LoggerTest, CodeReachesEverySinkUnchanged) {
  for (const int code : {std::numeric_limits<int>::min(), -1, 65536}) {
    for (const int level : {1, 2, 3, 4}) {
      Logger("").log(static_cast<OrvanServerLoglevel>(level), "f", code, "m");
    }
    EXPECT_EQ(take(), (std::vector<Call>{{"InfoA", code, "f: m"},
                                         {"AuthA", code, "f: m"},
                                         {"WarningA", code, "f: m"},
                                         {"ErrorA", code, "f: m"}}));
  }
}

TEST_F(LoggerTest, MessageIsFormattedForEveryLevelAlsoWhereItIsDropped) {
  for (const int level : {-1, 0, 1, 2, 3, 4, 5, 256 + 1, std::numeric_limits<int>::max()}) {
    int written = -1;
    Logger("n").log(static_cast<OrvanServerLoglevel>(level), "f", 0, "text%n", &written);
    EXPECT_EQ(written, 4) << "level " << level;
  }
  EXPECT_EQ(take().size(), 4U);
}

TEST_F(LoggerTest, TraceIsFormattedAlsoWhereItIsDroppedAtTheEnd) {
  traceAnswers = {true, false};
  int written = -1;
  Logger("n").logTrace("f", "text%n", &written);
  EXPECT_EQ(written, 4);
  EXPECT_EQ(take(), std::vector<Call>{});
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat"  // %m is the C library's own
TEST_F(LoggerTest, MessageMayHaveTheCallersErrno) {
  errno = ENOENT;
  Logger("n").log(LEVEL_INFO, "f", 0, "%m");
  EXPECT_EQ(take(), (std::vector<Call>{{"InfoA", 0, "n::f: No such file or directory"}}));
}
#pragma GCC diagnostic pop

TEST_F(LoggerTest, PrefixIsNeverCut) {
  const std::string longName(5000, 'n');
  Logger(longName).log(LEVEL_INFO, longName.c_str(), 0, "%s", longName.c_str());
  EXPECT_EQ(
      take(),
      (std::vector<Call>{{"InfoA", 0, longName + "::" + longName + ": " + longName.substr(905)}}));
}

TEST_F(LoggerTest, MessageIsFormatted) {
  Logger("").log(LEVEL_INFO, "f", 0, "%s %d %.2f", "text", -7, 1.5);
  EXPECT_EQ(take(), (std::vector<Call>{{"InfoA", 0, "f: text -7 1.50"}}));
}

TEST_F(LoggerTest, NumbersArePlainDecimalUnderAGroupingLocale) {
  const test::GlobalGroupingLocale grouping;
  Logger("n").log(LEVEL_INFO, "f", 0, "%d", 1234567);
  EXPECT_EQ(take(), (std::vector<Call>{{"InfoA", 0, "n::f: 1234567"}}));
}

TEST_F(LoggerTest, FinishedTextIsHandedToTheSinkAsItsFormat) {
  Logger("").log(LEVEL_INFO, "op%d", 0, "%s", "50%% of %n");
  EXPECT_EQ(take(), (std::vector<Call>{{"InfoA", 0, "op%d: 50%% of %n"}}));
}

TEST_F(LoggerTest, MessageIsCutTo4095CharactersBehindItsPrefix) {
  const std::string fits(4095, 'a');
  for (const std::string& message : {fits, fits + "b", std::string(5000, 'a')}) {
    Logger("n").log(LEVEL_INFO, "f", 0, "%s", message.c_str());
    EXPECT_EQ(take(), (std::vector<Call>{{"InfoA", 0, "n::f: " + fits}})) << message.size();
  }
}

TEST_F(LoggerTest, MessageThatCannotBeFormattedLeavesNoGarbageBehind) {
  const wchar_t invalid[] = {static_cast<wchar_t>(0x7FFFFFFF), 0};
  Logger("n").log(LEVEL_INFO, "f", 0, "%ls", invalid);
  EXPECT_EQ(take(), (std::vector<Call>{{"InfoA", 0, "n::f: "}}));
}

TEST_F(LoggerTest, NullFunctionIsALogicErrorBeforeAnySinkIsCalled) {
  const char* const none = nullptr;
  for (const int level : {0, 1, 2, 3, 4, 5}) {
    EXPECT_THROW(Logger("n").log(static_cast<OrvanServerLoglevel>(level), none, 0, "m"),
                 std::logic_error);
  }
  EXPECT_EQ(take(), std::vector<Call>{});
}

TEST_F(LoggerTest, TraceIsWrittenOnceWhenBothQuestionsAreAnsweredYes) {
  traceAnswers = {true, true};
  Logger("n").logTrace("f", "%d%%", 5);
  EXPECT_EQ(take(), (std::vector<Call>{{"__Trace", 0, "n::f: 5%"}}));
  EXPECT_EQ(traceQuestions, 2);
}

TEST_F(LoggerTest, TraceIsDroppedWhenTracingGoesOffWhileTheLineIsMade) {
  traceAnswers = {true, false};
  Logger("n").logTrace("f", "m");
  EXPECT_EQ(take(), std::vector<Call>{});
  EXPECT_EQ(traceQuestions, 2);
}

TEST_F(LoggerTest, TraceIsMadeBetweenTheTwoQuestions) {
  traceAnswers = {true, false};
  EXPECT_THROW(Logger("n").logTrace(nullptr, "m"), std::logic_error);
  EXPECT_EQ(traceQuestions, 1);
}

TEST_F(LoggerTest, NothingIsFormattedWhileTracingIsOff) {
  traceAnswers = {false, false, true};
  int written = -1;
  Logger("n").logTrace("f", "m%n", &written);
  EXPECT_NO_THROW(Logger("n").logTrace(nullptr, "m"));  // the name is not even looked at
  EXPECT_EQ(take(), std::vector<Call>{});
  EXPECT_EQ(traceQuestions, 2);  // one each
  EXPECT_EQ(written, -1);
}

TEST_F(LoggerTest, NullFunctionOfATraceIsALogicErrorWhileTracingIsOn) {
  traceAnswers = {true, true};
  EXPECT_THROW(Logger("n").logTrace(nullptr, "m"), std::logic_error);
  EXPECT_EQ(take(), std::vector<Call>{});
}

TEST_F(LoggerTest, FunctionNameIsNotTrimmed) {
  EXPECT_EQ(Logger("n").trimFunctionName("a::b(int)"), "a::b(int)");
  EXPECT_EQ(Logger("n").trimFunctionName(""), "");
  Logger("n").log(LEVEL_INFO, "void a::b(int) const", 0, "m");
  EXPECT_EQ(take(), (std::vector<Call>{{"InfoA", 0, "n::void a::b(int) const: m"}}));
}

TEST_F(LoggerTest, IsAValue) {
  Logger a("a");
  const Logger copy = a;
  EXPECT_EQ(copy, a);
  a = Logger("b");
  EXPECT_NE(copy, a);
  copy.log(LEVEL_INFO, "f", 0, "m");
  EXPECT_EQ(take(), (std::vector<Call>{{"InfoA", 0, "a::f: m"}}));
}

TEST_F(LoggerTest, ThrowsWhatRunsOutWhileItsNameIsWritten) {
  const Logger logger(std::string(3000, 'n'));
  const test::Allocations none(
      [](std::size_t size) -> void* { return size > 2000 ? throw std::bad_alloc() : nullptr; });
  EXPECT_THROW(logger.log(LEVEL_INFO, "f", 0, "text"), std::bad_alloc);
}

TEST_F(LoggerTest, ThreadsMayLogThroughOneLogger) {
  const Logger logger("n");
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 4; ++thread) {
    threads.emplace_back([&logger, thread] {
      for (int i = 0; i < 1000; ++i) {
        logger.log(LEVEL_INFO, "f", thread, "%d", i);
      }
      ASSERT_EQ(calls.size(), 1000U);
      EXPECT_EQ(calls.back(), (Call{"InfoA", thread, "n::f: 999"}));
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}

}  // namespace
}  // namespace orvane::server
