#include <gtest/gtest.h>

#include "process.hpp"
#include "text.hpp"

namespace orvane::test {
namespace {

TEST(Help, NamesEveryCommand) {
  const Ended ended = run({ORVANE_PATH, "--help"});

  EXPECT_EQ(ended.how, "exit 0");
  EXPECT_TRUE(contains(ended.out, "\n  send "));
  EXPECT_TRUE(contains(ended.out, "\n  demo "));
}

TEST(Help, OfSendNamesItsOptionsAndExitCodes) {
  const Ended ended = run({ORVANE_PATH, "send", "-h"});

  EXPECT_EQ(ended.how, "exit 0");
  for (const char* part :
       {"FILE", "--queue NAME", "--socket PATH", "--segment-size SIZE=64MiB",
        "--timeout SECONDS=30", "  0  ", "  1  ", "  2  ", "  3  ", "  4  ", "  5  "}) {
    EXPECT_TRUE(contains(ended.out, part)) << part;
  }
}

TEST(Help, OfDemoNamesItsExitCodes) {
  const Ended ended = run({ORVANE_PATH, "demo", "--help"});

  EXPECT_EQ(ended.how, "exit 0");
  EXPECT_TRUE(contains(
      ended.out,
      "Exit codes: 0 when every byte is the same, 2 for wrong use of the command, else 1."));
}

TEST(Help, EveryCommandTellsTheVersion) {
  EXPECT_EQ(run({ORVANE_PATH, "--version"}).out, "orvane " ORVANE_VERSION "\n");
  EXPECT_EQ(run({ORVANE_PATH, "send", "--version"}).out, "orvane " ORVANE_VERSION "\n");
  EXPECT_EQ(run({ORVANE_PATH, "demo", "--version"}).out, "orvane " ORVANE_VERSION "\n");
}

}  // namespace
}  // namespace orvane::test
