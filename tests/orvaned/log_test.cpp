// What the log makes of a line, and which lines it writes.

#include "log.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <regex>
#include <stdexcept>

namespace {

using Lines = std::vector<std::string>;

const std::timespec kNoon = {.tv_sec = 1795262400, .tv_nsec = 7999999};

// Standard error while it lives, and the log's settings; then both are as they were.
class CapturedLog {
 public:
  CapturedLog(ox::Kind lowest, bool tracing) : standardError(dup(STDERR_FILENO)) {
    // With O_DIRECT each read takes what one write wrote.
    if (pipe2(ends, O_DIRECT | O_NONBLOCK | O_CLOEXEC) != 0) {
      throw std::runtime_error("no pipe");
    }
    dup2(ends[1], STDERR_FILENO);
    orvaned::startLog(lowest, tracing);
  }
  ~CapturedLog() {
    ox::setTracing(false);
    ox::setSink(nullptr);
    dup2(standardError, STDERR_FILENO);
    for (const int fd : {standardError, ends[0], ends[1]}) {
      close(fd);
    }
  }
  CapturedLog(const CapturedLog&) = delete;
  CapturedLog& operator=(const CapturedLog&) = delete;

  // One string for each write, with TIME for its time stamp.
  Lines writes() const {
    static const std::regex time("^[-0-9]{10}T[:0-9]{8}\\.[0-9]{3}Z ");
    Lines written;
    char bytes[4096];
    for (ssize_t size; (size = read(ends[0], bytes, sizeof(bytes))) > 0;) {
      const std::string text(bytes, static_cast<std::size_t>(size));
      written.push_back(std::regex_replace(text, time, "TIME "));
    }
    return written;
  }

 private:
  const int standardError;
  int ends[2] = {};
};

Lines writtenAt(ox::Kind lowest) {
  const CapturedLog log(lowest, false);
  InfoA(0, "a::b: one");
  AuthA(-1, "a::b: two");
  WarningA(3, "a::b: three");
  ErrorA(1003, "a::b: four");
  return log.writes();
}

TEST(LogLine, HoldsTimeKindCodeAndText) {
  EXPECT_EQ(orvaned::logLine(ox::Kind::info, 0, "store::open: begun", {1795228344, 123000000}),
            "2026-11-21T02:32:24.123Z info 0 store::open: begun\n");
  EXPECT_EQ(orvaned::logLine(ox::Kind::auth, -1, "", kNoon), "2026-11-21T12:00:00.007Z auth -1 \n");
}

TEST(LogLine, NamesEveryKind) {
  const Lines expected = {
      "2026-11-21T12:00:00.007Z info 0 x\n",    "2026-11-21T12:00:00.007Z auth 0 x\n",
      "2026-11-21T12:00:00.007Z warning 0 x\n", "2026-11-21T12:00:00.007Z error 0 x\n",
      "2026-11-21T12:00:00.007Z trace 0 x\n",   "2026-11-21T12:00:00.007Z enter 0 x\n",
      "2026-11-21T12:00:00.007Z leave 0 x\n"};
  Lines lines;
  for (const auto kind : {ox::Kind::info, ox::Kind::auth, ox::Kind::warning, ox::Kind::error,
                          ox::Kind::trace, ox::Kind::enter, ox::Kind::leave}) {
    lines.push_back(orvaned::logLine(kind, 0, "x", kNoon));
  }
  EXPECT_EQ(lines, expected);
}

TEST(LogLine, IsInUtcWhereverItIsWritten) {
  const char* zone = getenv("TZ");
  const std::string before = zone ? zone : "";
  setenv("TZ", "XYZ-5:30", 1);
  tzset();
  EXPECT_EQ(orvaned::logLine(ox::Kind::info, 0, "x", kNoon), "2026-11-21T12:00:00.007Z info 0 x\n");
  zone ? setenv("TZ", before.c_str(), 1) : unsetenv("TZ");
  tzset();
}

TEST(LogLine, IsNoFormat) {
  EXPECT_EQ(orvaned::logLine(ox::Kind::info, 0, "%n%s", kNoon),
            "2026-11-21T12:00:00.007Z info 0 %n%s\n");
}

TEST(LogLevel, InfoKeepsEveryLineInAWriteOfItsOwn) {
  EXPECT_EQ(writtenAt(ox::Kind::info),
            (Lines{"TIME info 0 a::b: one\n", "TIME auth -1 a::b: two\n",
                   "TIME warning 3 a::b: three\n", "TIME error 1003 a::b: four\n"}));
}

TEST(LogLevel, AuthStandsBetweenInfoAndWarning) {
  EXPECT_EQ(writtenAt(ox::Kind::auth),
            (Lines{"TIME auth -1 a::b: two\n", "TIME warning 3 a::b: three\n",
                   "TIME error 1003 a::b: four\n"}));
}

TEST(LogLevel, WarningDropsInfoAndAuth) {
  EXPECT_EQ(writtenAt(ox::Kind::warning),
            (Lines{"TIME warning 3 a::b: three\n", "TIME error 1003 a::b: four\n"}));
}

TEST(LogLevel, ErrorKeepsErrorsAlone) {
  EXPECT_EQ(writtenAt(ox::Kind::error), Lines{"TIME error 1003 a::b: four\n"});
}

TEST(LogLevel, HasFourNames) {
  EXPECT_EQ(orvaned::levelNamed("info"), ox::Kind::info);
  EXPECT_EQ(orvaned::levelNamed("auth"), ox::Kind::auth);
  EXPECT_EQ(orvaned::levelNamed("warning"), ox::Kind::warning);
  EXPECT_EQ(orvaned::levelNamed("error"), ox::Kind::error);
  for (const char* other : {"", "Info", "infos", "trace", "enter", "leave", "0"}) {
    EXPECT_EQ(orvaned::levelNamed(other), std::nullopt) << other;
  }
}

TEST(Tracing, IsWrittenWhateverTheLevel) {
  const CapturedLog log(ox::Kind::error, true);
  const orvane::server::Logger logger("store");
  {
    const AutoTrace scope("open");
    logger.logTrace("open", "%d bytes", 7);
    logger.log(orvane::server::LEVEL_WARNING, "open", 0, "nearly full");
  }
  EXPECT_EQ(log.writes(), (Lines{"TIME enter 0 open\n", "TIME trace 0 store::open: 7 bytes\n",
                                 "TIME leave 0 open\n"}));
}

TEST(Tracing, IsOffUnlessAskedFor) {
  const CapturedLog log(ox::Kind::info, false);
  {
    const AutoTrace scope("open");
    orvane::server::Logger("store").logTrace("open", "%d bytes", 7);
  }
  EXPECT_EQ(log.writes(), Lines{});
}

TEST(DoublePercent, DoublesEachPercentSignAndNothingElse) {
  EXPECT_EQ(orvaned::doublePercent(""), "");
  EXPECT_EQ(orvaned::doublePercent("/srv/a b\\n"), "/srv/a b\\n");
  EXPECT_EQ(orvaned::doublePercent("%n%s%%"), "%%n%%s%%%%");
}

TEST(DoublePercent, KeepsATextUnchangedOnItsWayThroughALogger) {
  const CapturedLog log(ox::Kind::info, false);
  const orvane::server::Logger logger("store");
  logger.log(orvane::server::LEVEL_INFO, "open", 0, "%s",
             orvaned::doublePercent("%n%s%%100%").c_str());
  EXPECT_EQ(log.writes(), Lines{"TIME info 0 store::open: %n%s%%100%\n"});
}

}  // namespace
