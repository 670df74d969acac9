// The process that writes the log, and those that send it their lines.

#include "supervisor/log_writer.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <optional>
#include <orvane/orvane.hpp>
#include <regex>

#include "log.hpp"
#include "standard_error.hpp"
#include "support/await.hpp"

namespace {

using orvane::test::eventually;
using orvane::test::linesOf;
using orvane::test::LogPipe;
using orvane::test::StandardError;
using orvane::test::sumBefore;
using orvaned::LogSubject;
using orvaned::LogWriter;

std::string withoutTimes(const std::string& text) {
  static const std::regex time("(^|\\n)[-0-9]{10}T[:0-9]{8}\\.[0-9]{3}Z ");
  return std::regex_replace(text, time, "$1TIME ");
}

std::size_t timesIn(const std::string& text, const std::string& words) {
  std::size_t times = 0;
  for (std::size_t at = 0; (at = text.find(words, at)) != std::string::npos; ++at) {
    ++times;
  }
  return times;
}

bool isGone(pid_t process) {
  return kill(process, 0) != 0 && errno == ESRCH;
}

class LogWriterTest : public testing::Test {
 protected:
  LogWriterTest() : standardError(pipe.writingEnd()) {
    orvaned::startLog(ox::Kind::info, false);
    writer.emplace();
  }
  ~LogWriterTest() override {
    writer.reset();
    ox::setSink(nullptr);
  }

  // As the supervisor does, every now and then.
  bool lookAfterUntil(const std::function<bool()>& condition) {
    return eventually([&] {
      writer->restartIfEnded();
      return condition();
    });
  }

  // In a separate process, which has ended then.
  static void inAChild(const std::function<void()>& task) {
    const pid_t child = fork();
    if (child == 0) {
      orvaned::closeLogReader();
      task();
      _exit(0);
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
  }

  static void logLines(int count) {
    for (int n = 0; n < count; ++n) {
      InfoA(0, "a::b: line %d.", n);
    }
  }

  LogPipe pipe;
  const StandardError standardError;
  std::optional<LogWriter> writer;
};

TEST_F(LogWriterTest, LinesOfAllProcessesArriveInTheirOrder) {
  InfoA(0, "a::b: one");
  inAChild([] { ErrorA(1003, "a::b: two"); });
  WarningA(7, "a::b: three");
  EXPECT_EQ(withoutTimes(pipe.readUntil("three\n")),
            "TIME info 0 a::b: one\nTIME error 1003 a::b: two\nTIME warning 7 a::b: three\n");
}

TEST_F(LogWriterTest, AFullPipeBlocksNobodyAndTheDroppedLinesAreCounted) {
  constexpr unsigned kLines = 60000;  // more than the process keeps, and the socket holds
  pipe.fill();
  logLines(kLines / 2);
  inAChild([] { logLines(kLines / 2); });
  std::size_t arrived = 0;
  unsigned long long dropped = 0;
  EXPECT_TRUE(lookAfterUntil([&] {
    const std::string& log = pipe.readAll();
    arrived = timesIn(log, " a::b: line ");
    dropped = sumBefore(log, " lines? w(?:as|ere) dropped");
    return arrived + dropped == kLines;
  })) << arrived
      << " arrived, " << dropped << " dropped";
  EXPECT_GT(dropped, 0U);
}

TEST_F(LogWriterTest, ABurstWaitsInTheSocketForAProcessThatDoesNotRun) {
  orvane::test::stop(writer->process());
  logLines(400);
  kill(writer->process(), SIGCONT);
  writer->finish();
  EXPECT_EQ(linesOf(pipe.readAll()).size(), 400U);
}

TEST_F(LogWriterTest, WhatADeadProcessHadNotWrittenIsWrittenAtTheEnd) {
  orvane::test::stop(writer->process());
  ErrorA(1, "a::b: why the server ends");
  kill(writer->process(), SIGKILL);
  siginfo_t ended = {};
  waitid(P_PID, static_cast<id_t>(writer->process()), &ended, WEXITED | WNOWAIT);
  writer->finish();
  EXPECT_EQ(withoutTimes(pipe.readAll()), "TIME error 1 a::b: why the server ends\n");
}

TEST_F(LogWriterTest, TheFlagsOfASharedStandardErrorStayAsTheyAre) {
  const int before = fcntl(pipe.writingEnd(), F_GETFL);
  pipe.fill();
  logLines(10000);
  EXPECT_EQ(fcntl(pipe.writingEnd(), F_GETFL), before);
  writer->finish();
  EXPECT_EQ(fcntl(pipe.writingEnd(), F_GETFL), before);
}

TEST_F(LogWriterTest, AStandardErrorThatOthersMadeNonBlockingLosesNoLine) {
  fcntl(pipe.writingEnd(), F_SETFL, O_WRONLY | O_NONBLOCK);
  fcntl(pipe.writingEnd(), F_SETPIPE_SZ, 4096);
  const std::string longText(3000, 'x');  // so that a line may fit in part
  std::string expected;
  for (int n = 0; n < 100; ++n) {
    const std::string text = "a::b: " + longText + std::to_string(n) + ".";
    orvaned::logText(ox::Kind::info, 0, text.c_str());
    expected += "TIME info 0 " + text + "\n";
  }
  EXPECT_EQ(withoutTimes(pipe.readUntil("x99.\n")), expected);
}

TEST_F(LogWriterTest, AKilledProcessIsReplacedAndTheLinesUnderWayArrive) {
  const pid_t first = writer->process();
  orvane::test::stop(first);
  InfoA(0, "a::b: sent before");
  kill(first, SIGKILL);
  ASSERT_TRUE(lookAfterUntil([&] { return writer->process() > 0 && writer->process() != first; }));
  InfoA(0, "a::b: sent after");
  EXPECT_EQ(withoutTimes(pipe.readUntil("after\n")),
            "TIME info 0 a::b: sent before\nTIME info 0 a::b: sent after\n");
  EXPECT_TRUE(isGone(first));
}

TEST_F(LogWriterTest, TheProcessHoldsNoFileOfItsParent) {
  const LogPipe other;
  kill(writer->process(), SIGKILL);
  const pid_t first = writer->process();
  ASSERT_TRUE(lookAfterUntil([&] { return writer->process() > 0 && writer->process() != first; }));
  const std::string folder = "/proc/" + std::to_string(writer->process()) + "/fd";
  InfoA(0, "a::b: ready");
  pipe.readUntil("ready\n");
  const auto files = std::distance(std::filesystem::directory_iterator(folder), {});
  EXPECT_EQ(files, 4);  // the standard files, and its end of the socket
}

TEST_F(LogWriterTest, NoSignalToTheTerminalEndsTheProcess) {
  const pid_t process = writer->process();
  for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP, SIGPIPE, SIGALRM}) {
    kill(process, number);
  }
  InfoA(0, "a::b: still there");
  pipe.readUntil("still there\n");
  writer->restartIfEnded();
  EXPECT_EQ(writer->process(), process);
}

TEST_F(LogWriterTest, FinishWritesTheLastLines) {
  const pid_t process = writer->process();
  logLines(30);
  writer->finish();
  EXPECT_NE(pipe.readAll().find("line 29.\n"), std::string::npos);
  EXPECT_TRUE(isGone(process));
}

TEST_F(LogWriterTest, FinishWritesTheCountsThatAreNotDueYet) {
  {
    const LogSubject subject(1000);
    logLines(21);
  }
  writer->finish();
  EXPECT_NE(pipe.readAll().find("a::b: user 1000: 1 more line like this within a second; the first "
                                "of them: line 20.\n"),
            std::string::npos);
}

TEST_F(LogWriterTest, FinishDoesNotWaitForAPipeThatStaysFull) {
  const pid_t process = writer->process();
  pipe.fill();
  logLines(100);
  writer->finish();
  EXPECT_TRUE(isGone(process));
}

TEST_F(LogWriterTest, FinishDoesNotWaitForOtherProcessesThatLog) {
  int ends[2] = {};
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  const pid_t other = fork();
  if (other == 0) {
    close(ends[1]);
    char byte = 0;
    _exit(static_cast<int>(read(ends[0], &byte, 1)));  // until the parent has finished
  }
  const pid_t process = writer->process();
  logLines(1);
  const auto begin = std::chrono::steady_clock::now();
  writer->finish();
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(2));  // then it kills
  EXPECT_NE(pipe.readAll().find("line 0.\n"), std::string::npos);
  EXPECT_TRUE(isGone(process));
  close(ends[0]);
  close(ends[1]);
  waitpid(other, nullptr, 0);
}

TEST_F(LogWriterTest, ACountIsDueWithoutAnotherLine) {
  const LogSubject subject("queue orders");
  logLines(50);
  pipe.readUntil(
      "a::b: queue orders: 30 more lines like this within a second; the first of them: "
      "line 20.\n");
}

TEST_F(LogWriterTest, TheProcessesOfOneUserAreLimitedTogether) {
  const LogSubject subject(1000);
  inAChild([] { logLines(15); });
  inAChild([] { logLines(15); });
  writer->finish();
  EXPECT_NE(pipe.readAll().find("a::b: user 1000: 10 more lines like this"), std::string::npos);
}

TEST_F(LogWriterTest, ASubjectEndsWithItsScope) {
  {
    const LogSubject outer(1);
    const LogSubject inner(2);
  }
  logLines(50);
  writer->finish();
  EXPECT_EQ(linesOf(pipe.readAll()).size(), 50U);
}

TEST_F(LogWriterTest, ATextIsOneLineWhateverItHolds) {
  orvaned::logText(ox::Kind::error, 1000, "a::b: x\n2026 info 0 forged: y\r\t\x1b[2J\x7f%n");
  EXPECT_EQ(withoutTimes(pipe.readUntil("%n\n")),
            "TIME error 1000 a::b: x?2026 info 0 forged: y???[2J?%n\n");
}

TEST_F(LogWriterTest, TraceLinesOfOthersAreDroppedWhileTracingIsOff) {
  orvaned::logText(ox::Kind::trace, 0, "a::b: traced");
  orvaned::logText(ox::Kind::info, 0, "a::b: told");
  EXPECT_EQ(withoutTimes(pipe.readUntil("told\n")), "TIME info 0 a::b: told\n");
}

TEST_F(LogWriterTest, AProcessThatLeftTheLogWritesItself) {
  inAChild([] {
    orvaned::leaveLog();
    InfoA(0, "a::b: by itself");
  });
  EXPECT_EQ(withoutTimes(pipe.readAll()), "TIME info 0 a::b: by itself\n");
}

TEST(LogWithoutWriter, IsWrittenAtOnce) {
  LogPipe pipe;
  const StandardError standardError(pipe.writingEnd());
  orvaned::startLog(ox::Kind::info, false);
  { const LogWriter writer; }
  InfoA(0, "a::b: after it");
  ox::setSink(nullptr);
  EXPECT_EQ(withoutTimes(pipe.readAll()), "TIME info 0 a::b: after it\n");
}

TEST(OneLine, CutsWhatIsTooLong) {
  EXPECT_EQ(orvaned::oneLine(std::string(4608, 'x')), std::string(4608, 'x'));
  EXPECT_EQ(orvaned::oneLine(std::string(4609, 'x')), std::string(4599, 'x') + "... (cut)");
}

TEST(OneLine, KeepsUtf8) {
  EXPECT_EQ(orvaned::oneLine("/srv/\xc3\xa4"), "/srv/\xc3\xa4");
}

}  // namespace
