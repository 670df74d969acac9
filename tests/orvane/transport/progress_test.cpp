#include <gtest/gtest.h>

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

  const Ended ended = run(server.sendCommand({path}), "", {.errorTerminal = true});

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

TEST(SendProgress, IsNotDrawnForWhoWantsPlainText) {
  Server server({"--message-size", "600", "--messages", "2"});
  TempFolder folder;
  const std::string path = folder.path() + "/input";
  writeFile(path, std::string(4000000, 'x'));

  const Ended ended =
      run(server.sendCommand({path}), "", {.environment = {"NO_COLOR=1"}, .errorTerminal = true});

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

}  // namespace
}  // namespace orvane::test
