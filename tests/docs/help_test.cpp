#include <gtest/gtest.h>

#include "support/captured.hpp"
#include "support/process.hpp"
#include "support/server.hpp"
#include "support/text.hpp"

namespace orvane::test {
namespace {

TEST(Help, NamesEveryCommand) {
  const Ended ended = run({ORVANE_PATH, "--help"});

  EXPECT_EQ(ended.how, "exit 0");
  EXPECT_TRUE(contains(ended.out, "\n  send "));
  EXPECT_TRUE(contains(ended.out, "\n  demo "));
  EXPECT_TRUE(contains(ended.out, "\n  ls "));
  EXPECT_TRUE(contains(ended.out, "\n  stat "));
  EXPECT_TRUE(contains(ended.out, "\n  streams "));
  EXPECT_TRUE(contains(ended.out, "\n  cat "));
  EXPECT_TRUE(contains(ended.out, "\n  clean "));
  EXPECT_TRUE(contains(ended.out, "\n  dump "));
  EXPECT_TRUE(contains(ended.out, "\n  verify "));
  EXPECT_TRUE(contains(ended.out, "\n  prune "));
  EXPECT_TRUE(contains(ended.out, "\n  fetch "));
  EXPECT_TRUE(contains(ended.out, "\n  help "));
}

TEST(Help, OfSendNamesItsOptionsAndExitCodes) {
  const Ended ended = run({ORVANE_PATH, "send", "-h"});

  EXPECT_EQ(ended.how, "exit 0");
  for (const char* part :
       {"FILE", "--queue NAME", "--socket PATH", "--label TEXT", "--segment-size SIZE=64MiB",
        "--timeout SECONDS=30", "  0  ", "  1  ", "  2  ", "  3  ", "  4  ", "  5  ", "  6  "}) {
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

TEST(Help, OfWhatLooksAtQueuesAndStreamsNamesOptionsAndExitCodes) {
  const std::pair<const char*, std::vector<const char*>> commands[] = {
      {"ls", {"--json"}},
      {"stat", {"NAME", "--interval SECONDS=1", "--json"}},
      {"streams",
       {"STORE", "--since TIME", "--until TIME", "--queue NAME", "--label TEXT", "--end END",
        "--json", "--nats URL", "--creds FILE", "yesterday"}},
      {"cat",
       {"STREAM", "--store STORE", "--last", "--segment NUMBER", "--follow", "--socket PATH",
        "--force"}},
      {"clean", {"NAME", "--dry-run"}},
      {"dump", {"FILE", "--store STORE", "--json"}},
      {"verify", {"NAME", "--store STORE", "--quiet", "--json"}},
      {"prune",
       {"STORE", "--older-than DURATION", "--keep-bytes SIZE", "--keep-free SIZE", "--end END",
        "--forwarded", "--dry-run", "--json"}},
      {"fetch",
       {"STREAM", "DIR", "--nats URL", "--creds FILE", "--follow", "--timeout SECONDS=30",
        "--json"}}};
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

// A full disk, a pipe whose reader has gone, a standard output that was closed.
TEST(Output, ThatCannotBeWrittenFailsEveryCommand) {
  const TempFolder folder;
  const std::string file = folder.path() + "/capture";
  writeFile(file, captured("orders", kExample));
  Server server;
  const std::string full = "orvane: cannot write all of it: No space left on device\n";
  for (const char* const option : {"", "--help", "--version", "send --help", "ls --version"}) {
    const Ended ended =
        run({"/bin/sh", "-c", ORVANE_PATH " " + std::string(option) + " > /dev/full"});
    EXPECT_EQ(ended.how, "exit 1") << option;
    EXPECT_EQ(ended.err, full) << option;
  }
  ASSERT_EQ(run(server.sendCommand({file})).how, "exit 0");
  const std::string commands[] = {"ls",
                                  "ls --json",
                                  "streams " + server.store(),
                                  "streams --json " + server.store(),
                                  "cat " + server.streams().at(0),
                                  "stat --interval 0 " + server.queue(),
                                  "stat --interval 0 --json " + server.queue(),
                                  "clean --dry-run " + server.queue(),
                                  "dump " + file,
                                  "dump --json " + file,
                                  "verify " + server.store(),
                                  "verify --json " + server.store(),
                                  "prune --dry-run --older-than 1d " + server.store(),
                                  "demo " + file,
                                  "help",
                                  "help send"};
  for (const std::string& command : commands) {
    const std::string name = "orvane " + command.substr(0, command.find(' '));
    const Ended ended = run({"/bin/sh", "-c", ORVANE_PATH " " + command + " > /dev/full"});
    EXPECT_EQ(ended.how, "exit 1") << command;
    EXPECT_EQ(ended.err, name + ": cannot write all of it: No space left on device\n");
    EXPECT_NE(
        run({PYTHON_PATH, "-c", kWithoutReader, "/bin/sh", "-c", "exec " ORVANE_PATH " " + command})
            .how,
        "exit 0")
        << command;
    const Ended closed = run({"/bin/sh", "-c", ORVANE_PATH " " + command + " >&-"});
    EXPECT_EQ(closed.how, "exit 1") << command;
    EXPECT_EQ(closed.err, name + ": cannot write all of it: Bad file descriptor\n");
  }
}

TEST(Help, EveryCommandTellsTheVersion) {
  EXPECT_EQ(run({ORVANE_PATH, "--version"}).out, "orvane " ORVANE_VERSION "\n");
  EXPECT_EQ(run({ORVANE_PATH, "send", "--version"}).out, "orvane " ORVANE_VERSION "\n");
  for (const char* command : {"demo", "ls", "stat", "streams", "cat", "clean", "dump", "verify",
                              "prune", "fetch", "help"}) {
    EXPECT_EQ(run({ORVANE_PATH, command, "--version"}).out, "orvane " ORVANE_VERSION "\n");
  }
}

}  // namespace
}  // namespace orvane::test
