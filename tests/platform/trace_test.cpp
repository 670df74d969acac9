#include <gtest/gtest.h>

#include <cerrno>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "ox/log.hpp"
#include "ox/sink.hpp"
#include "ox/trace.hpp"
#include "support/recording_sink.hpp"

namespace orvane::test {
namespace {

using Tracing = RecordingSink::Tracing;

TEST(PlatformLog, TellsTheSinkKindCodeAndText) {
  RecordingSink sink;
  InfoA(1, "%s of %d", "one", 4);
  AuthA(2, "%s of %d", "two", 4);
  WarningA(3, "%s of %d", "three", 4);
  ErrorA(4, "%s of %d", "four", 4);
  __Trace("%s: %u", "five", 4294967295U);
  EXPECT_EQ(sink.take(), (std::vector<Line>{{ox::Kind::info, 1, "one of 4"},
                                            {ox::Kind::auth, 2, "two of 4"},
                                            {ox::Kind::warning, 3, "three of 4"},
                                            {ox::Kind::error, 4, "four of 4"},
                                            {ox::Kind::trace, 0, "five: 4294967295"}}));
}

TEST(PlatformLog, PassesCodesOnUnchanged) {
  RecordingSink sink;
  WarningA(-1, "all bits set");
  ErrorA(0x7FFFFFFF, "largest");
  EXPECT_EQ(sink.take(), (std::vector<Line>{{ox::Kind::warning, -1, "all bits set"},
                                            {ox::Kind::error, 0x7FFFFFFF, "largest"}}));
}

TEST(PlatformLog, KeepsTextsOfEveryLengthWhole) {
  RecordingSink sink;
  for (std::size_t length = 0; length < 4200; ++length) {
    const std::string text(length, 'x');
    InfoA(0, "%s", text.c_str());
    const std::vector<Line> lines = sink.take();
    ASSERT_EQ(lines.size(), 1U);
    ASSERT_EQ(lines[0].text, text) << length << " characters";
  }
  const std::string text(1000000, 'x');
  __Trace("%s!", text.c_str());
  EXPECT_EQ(sink.take(), std::vector{traced(text + "!")});
}

TEST(PlatformLog, WritesAFormatThatCannotBeFilledInAsItStands) {
  RecordingSink sink;
  const wchar_t noCharacter[] = {0xD800, 0};
  ErrorA(5, "name %ls", noCharacter);
  __Trace("trace of %ls", noCharacter);
  const std::vector<Line> lines = sink.take();
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_EQ(lines[0].kind, ox::Kind::error);
  EXPECT_EQ(lines[0].code, 5);
  EXPECT_TRUE(lines[0].text.ends_with("name %ls")) << lines[0];
  EXPECT_GT(lines[0].text.size(), std::string("name %ls").size()) << "a note stands in front";
  EXPECT_EQ(lines[1].kind, ox::Kind::trace);
  EXPECT_TRUE(lines[1].text.ends_with("trace of %ls")) << lines[1];
}

TEST(PlatformLog, LeavesErrnoAlone) {
  ox::setSink([](ox::Kind, int, const char*) { errno = ENOENT; });
  ox::setTracing(true);
  const wchar_t noCharacter[] = {0xD800, 0};
  errno = EXDEV;
  InfoA(0, "a line");
  EXPECT_EQ(errno, EXDEV);
  AuthA(0, "a line");
  EXPECT_EQ(errno, EXDEV);
  WarningA(0, "a line");
  EXPECT_EQ(errno, EXDEV);
  ErrorA(0, "%ls", noCharacter);
  EXPECT_EQ(errno, EXDEV);
  __Trace("a line");
  EXPECT_EQ(errno, EXDEV);
  { const AutoTrace scope("operation"); }
  EXPECT_EQ(errno, EXDEV);
  ox::setTracing(false);
  ox::setSink(nullptr);
}

TEST(PlatformLog, DropsWhatASinkThrows) {
  ox::setSink([](ox::Kind, int, const char*) { throw std::runtime_error("sink"); });
  ox::setTracing(true);
  EXPECT_NO_THROW(InfoA(0, "a line"));
  EXPECT_NO_THROW(AuthA(0, "a line"));
  EXPECT_NO_THROW(WarningA(0, "a line"));
  EXPECT_NO_THROW(ErrorA(0, "a line"));
  EXPECT_NO_THROW(__Trace("a line"));
  EXPECT_NO_THROW(const AutoTrace scope("operation"));
  ox::setTracing(false);
  ox::setSink(nullptr);
}

TEST(PlatformLog, TakesLinesFromSeveralThreads) {
  RecordingSink sink;
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([i] {
      for (int line = 0; line < 100; ++line) {
        InfoA(i, "%s", std::string(300, static_cast<char>('a' + i)).c_str());
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  const std::vector<Line> lines = sink.take();
  EXPECT_EQ(lines.size(), 400U);
  for (const Line& line : lines) {
    EXPECT_EQ(line.text, std::string(300, static_cast<char>('a' + line.code)));
  }
}

TEST(Tracing, IsOffAtTheStartAndFollowsItsSwitch) {
  EXPECT_FALSE(TraceOn());
  ox::setTracing(true);
  EXPECT_TRUE(TraceOn());
  ox::setTracing(false);
  EXPECT_FALSE(TraceOn());
}

TEST(Tracing, LinesAreWrittenWhetherItIsOnOrNot) {
  RecordingSink sink(Tracing::off);
  __Trace("callers ask first");
  EXPECT_EQ(sink.take(), std::vector{traced("callers ask first")});
}

TEST(AutoTrace, MarksEntryAndExit) {
  RecordingSink sink(Tracing::on);
  {
    const AutoTrace outer("outer");
    const AutoTrace inner("inner %s");
    __Trace("between");
  }
  EXPECT_EQ(sink.take(), (std::vector{entered("outer"), entered("inner %s"), traced("between"),
                                      left("inner %s"), left("outer")}));
}

TEST(AutoTrace, IsSilentWhileTracingIsOff) {
  RecordingSink sink(Tracing::off);
  { const AutoTrace scope("operation"); }
  EXPECT_EQ(sink.take(), std::vector<Line>());
}

TEST(AutoTrace, EnteredUntracedIsNotMarkedWhenItIsLeft) {
  RecordingSink sink(Tracing::off);
  {
    const AutoTrace scope("operation");
    ox::setTracing(true);
  }
  EXPECT_EQ(sink.take(), std::vector<Line>());
}

TEST(AutoTrace, EnteredTracedIsMarkedWhenItIsLeft) {
  RecordingSink sink(Tracing::on);
  {
    const AutoTrace scope("operation");
    ox::setTracing(false);
  }
  EXPECT_EQ(sink.take(), (std::vector{entered("operation"), left("operation")}));
}

TEST(AutoTrace, IsMarkedWhenAnExceptionLeaves) {
  RecordingSink sink(Tracing::on);
  EXPECT_THROW(
      {
        const AutoTrace scope("operation");
        throw std::runtime_error("out");
      },
      std::runtime_error);
  EXPECT_EQ(sink.take(), (std::vector{entered("operation"), left("operation")}));
}

}  // namespace
}  // namespace orvane::test
