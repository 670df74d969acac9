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
  EXPECT_TRUE(contains(ended.out, "\n  ls "));
  EXPECT_TRUE(contains(ended.out, "\n  stat "));
  EXPECT_TRUE(contains(ended.out, "\n  clean "));
  EXPECT_TRUE(contains(ended.out, "\n  dump "));
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

TEST(Help, OfWhatLooksAtQueuesNamesOptionsAndExitCodes) {
  const std::pair<const char*, std::vector<const char*>> commands[] = {
      {"ls", {"--json"}},
      {"stat", {"NAME", "--interval SECONDS=1", "--json"}},
      {"clean", {"NAME", "--dry-run"}},
      {"dump", {"FILE", "--json"}}};
  for (const auto& [command, parts] : commands) {
    const Ended ended = run({ORVANE_PATH, command, "-h"});
    EXPECT_EQ(ended.how, "exit 0");
    for (const char* part : parts) {
      EXPECT_TRUE(contains(ended.out, part)) << part;
    }
    EXPECT_TRUE(
        contains(ended.out, "\nExit codes: 0 done, 1 failed, 2 wrong use of the command.\n"));
  }
}

TEST(Help, EveryCommandTellsTheVersion) {
  EXPECT_EQ(run({ORVANE_PATH, "--version"}).out, "orvane " ORVANE_VERSION "\n");
  EXPECT_EQ(run({ORVANE_PATH, "send", "--version"}).out, "orvane " ORVANE_VERSION "\n");
  for (const char* command : {"demo", "ls", "stat", "clean", "dump"}) {
    EXPECT_EQ(run({ORVANE_PATH, command, "--version"}).out, "orvane " ORVANE_VERSION "\n");
  }
}

}  // namespace
}  // namespace orvane::test
