#include <gtest/gtest.h>

#include <csignal>
#include <regex>

#include "support/eventually.hpp"
#include "support/server.hpp"
#include "support/text.hpp"

namespace orvane::test {
namespace {

TEST(SendProgress, IsDrawnOnATerminal) {
  // Small messages make it last.
  Server server({"--message-size", "600", "--messages", "2"});
  TempFolder folder;
  const std::string path = folder.path() + "/input";
  writeFile(path, std::string(4000000, 'x'));

  // It has no colours, so a user who wants none sees it, too.
  const Ended ended =
      run(server.sendCommand({path}), "", {.environment = {"NO_COLOR=1"}, .errorTerminal = true});

  EXPECT_EQ(ended.how, "exit 0");
  const std::regex drawing(
      "\r[0-9.]+ [kM]?B of 4\\.00 MB, [0-9.]+ [kM]?B/s, [0-9]+:[0-9][0-9] left");
  const auto first = std::sregex_iterator(ended.err.begin(), ended.err.end(), drawing);
  const auto drawings = std::distance(first, std::sregex_iterator());
  EXPECT_GE(drawings, 1) << ended.err;
  const double seconds =
      std::stod(std::regex_replace(ended.out, std::regex(".* ([0-9.]+) s,[^\n]*\n"), "$1"));
  EXPECT_LE(static_cast<double>(drawings), 10 * seconds + 1);
  EXPECT_TRUE(ended.err.ends_with(" \r")) << "the line is not cleared";
  EXPECT_EQ(ended.err.find('\x1b'), std::string::npos) << "colours";
}

TEST(SendProgress, IsNotDrawnForTheQuiet) {
  Server server({"--message-size", "600", "--messages", "2"});
  TempFolder folder;
  const std::string path = folder.path() + "/input";
  writeFile(path, std::string(4000000, 'x'));

  const Ended ended = run(server.sendCommand({"--quiet", path}), "", {.errorTerminal = true});

  EXPECT_EQ(ended.how, "exit 0");
  EXPECT_EQ(ended.err, "");
}

TEST(SendProgress, OfAPipeNamesNoTotal) {
  Server server;
  Process send(server.sendCommand({"-"}), {.errorTerminal = true});
  std::string shown;
  ASSERT_TRUE(eventually([&] {
    send.write(std::string(200000, 'x'));
    shown += send.terminalOutput();
    return !shown.empty();
  }));

  EXPECT_EQ(send.wait().how, "exit 0");
  EXPECT_TRUE(matches(shown, "\r[0-9.]+ [kMG]?B, [0-9.]+ [kMG]?B/s"));
}

TEST(SendProgress, IsErasedBeforeTheMessageOfAnInterrupt) {
  Server server;
  Process send(server.sendCommand({"-"}), {.errorTerminal = true});
  std::string shown;
  ASSERT_TRUE(eventually([&] {
    send.write(std::string(200000, 'x'));
    shown += send.terminalOutput();
    return !shown.empty();
  }));

  send.signal(SIGINT);
  const Ended ended = send.wait();

  EXPECT_EQ(ended.how, "signal 2");
  shown += ended.err;
  // Blanks also cover the ^C that the terminal shows.
  const std::smatch end = [&] {
    std::smatch found;
    std::regex_search(shown, found,
                      std::regex("\r([0-9.]+ [kMG]?B, [0-9.]+ [kMG]?B/s) *\r( +)\r\rorvane send: "
                                 "interrupted while sending standard input \\(0 of 1 file "
                                 "stored\\)\r?\n$"));
    return found;
  }();
  ASSERT_FALSE(end.empty()) << shown;
  EXPECT_GE(end[2].length(), end[1].length() + 2);
}

TEST(SendProgress, ThatWasNotShownYetLeavesNothingOfAnInterruptBeforeTheMessage) {
  Server server;
  Process send(server.sendCommand({"-"}), {.errorTerminal = true});
  ASSERT_TRUE(eventually([&] { return server.streams().size() == 1; }));

  send.signal(SIGINT);

  EXPECT_TRUE(matches(send.wait().err,
                      "\rorvane send: interrupted while sending standard input \\(0 of 1 file "
                      "stored\\)\r?\n"));
}

}  // namespace
}  // namespace orvane::test
