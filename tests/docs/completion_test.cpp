// Each shell offers the commands and options that --help lists, the queues that are there, and
// the streams of the store.

#include <gtest/gtest.h>

#include <algorithm>
#include <regex>
#include <sstream>

#include "support/process.hpp"
#include "support/server.hpp"
#include "support/temp_folder.hpp"
#include "support/text.hpp"

namespace orvane::test {
namespace {

using Words = std::vector<std::string>;

// A shell with a program that loads a file and prints what is offered for the last of some words.
struct Shell {
  std::string name;
  Words command;
  std::string file;
};

const Shell kBash = {"Bash",
                     {BASH_PATH, "--norc", "-c",
                      "source \"$0\"; COMP_WORDS=(\"$@\"); COMP_CWORD=$(($# - 1)); _orvane \"$1\"\n"
                      "printf '%s\\n' \"${COMPREPLY[@]}\""},
                     COMPLETION_FOLDER "/orvane.bash"};
const Shell kZsh = {"Zsh",
                    {ZSH_PATH, "-f", "-c",
                     "compadd() { shift; print -rl -- \"$@\" }; _files() { }\n"
                     "words=(\"$@\"); CURRENT=$#; source $0"},
                    COMPLETION_FOLDER "/_orvane"};
const Shell kFish = {"Fish",
                     {FISH_PATH, "--no-config", "-c",
                      "source $argv[1]; complete -C (string join -- ' ' $argv[2..])"},
                     COMPLETION_FOLDER "/orvane.fish"};

Words sorted(Words words) {
  std::sort(words.begin(), words.end());
  return words;
}

// The words in the lines of a text that begin as asked, without a description.
Words wordsIn(const std::string& text, const std::string& begin) {
  std::istringstream lines(text);
  Words words;
  for (std::string line; std::getline(lines, line);) {
    const std::string word = line.substr(0, line.find('\t'));
    if (!word.empty() && word.starts_with(begin)) {
      words.push_back(word);
    }
  }
  return sorted(words);
}

class Completion : public testing::TestWithParam<Shell> {
 protected:
  Words offered(const Words& words, const std::string& store = "") const {
    Words command = GetParam().command;
    command.push_back(GetParam().file);
    command.insert(command.end(), words.begin(), words.end());
    const std::string folder =
        std::string(ORVANE_PATH).substr(0, std::string(ORVANE_PATH).rfind('/'));
    const Ended ended =
        run(command, "",
            {.environment = {"PATH=" + folder + ":/usr/bin:/bin", "HOME=" + home.path(),
                             "ORVANE_STORE=" + store, "XDG_DATA_HOME=" + home.path(),
                             "XDG_CONFIG_HOME=" + home.path()}});
    EXPECT_EQ(ended.err, "");
    return wordsIn(ended.out, words.back());
  }

  const TempFolder home;
};

// What the first group of a pattern is in the lines of a help text that match it.
Words listed(const Words& arguments, const std::string& pattern) {
  Words command = {ORVANE_PATH};
  command.insert(command.end(), arguments.begin(), arguments.end());
  std::istringstream help(run(command).out);
  Words words;
  std::smatch parts;
  bool isCommand = false;
  for (std::string line; std::getline(help, line);) {
    isCommand = isCommand || line == "Subcommands:";
    if (std::regex_match(line, parts, std::regex(pattern)) && (isCommand || contains(line, "--"))) {
      words.push_back(parts[1]);
    }
  }
  return sorted(words);
}

Words commands() {
  return listed({"--help"}, "  ([a-z]+) .*");
}

TEST_P(Completion, OffersTheCommandsOfTheHelp) {
  ASSERT_EQ(commands().front(), "cat");

  EXPECT_EQ(offered({"orvane", ""}), commands());
  EXPECT_EQ(offered({"orvane", "help", ""}), commands());
  EXPECT_EQ(offered({"orvane", "se"}), Words{"send"});
}

TEST_P(Completion, OffersTheOptionsOfTheHelpOfEachCommand) {
  const std::string option = "  (?:-[a-z],)?(--[a-z-]+).*";
  EXPECT_EQ(offered({"orvane", "--"}), (Words{"--help", "--version"}));
  for (const std::string& command : commands()) {
    EXPECT_EQ(offered({"orvane", command, "--"}), listed({command, "--help"}, option)) << command;
  }
}

#ifdef ORVANE_FORWARD_PATH
TEST_P(Completion, OffersTheOptionsOfTheForwarder) {
  std::istringstream help(run({ORVANE_FORWARD_PATH, "--help"}).out);
  Words options;
  std::smatch parts;
  for (std::string line; std::getline(help, line);) {
    if (std::regex_match(line, parts, std::regex("  (?:-[a-z],)?(--[a-z-]+).*"))) {
      options.push_back(parts[1]);
    }
  }
  ASSERT_EQ(sorted(options).front(), "--creds");
  EXPECT_EQ(offered({"orvane-forward", "--"}), sorted(options));
}
#endif

TEST_P(Completion, OffersTheQueuesThatAreThere) {
  const Server server;
  const std::string begin = server.queue().substr(0, server.queue().size() - 1);
  const Words queue = {server.queue()};

  EXPECT_EQ(offered({"orvane", "send", "--queue", begin}), queue);
  EXPECT_EQ(offered({"orvane", "send", "-q", begin}), queue);
  EXPECT_EQ(offered({"orvane", "stat", begin}), queue);
  EXPECT_EQ(offered({"orvane", "clean", begin}), queue);
}

TEST_P(Completion, OffersTheIdsOfTheStreams) {
  Server server;
  ASSERT_EQ(run(server.sendCommand({"-"}), "hello").how, "exit 0");
  const std::string folder = server.streams().at(0);
  const Words id = {folder.substr(folder.rfind('/') + 1)};
  const std::string begin = id.front().substr(0, id.front().size() - 2);

  EXPECT_EQ(offered({"orvane", "cat", ""}, server.store()), id);
  EXPECT_EQ(offered({"orvane", "cat", begin}, server.store()), id);
  EXPECT_EQ(offered({"orvane", "dump", begin}, server.store()), id);
  EXPECT_EQ(offered({"orvane", "verify", begin}, server.store()), id);
  EXPECT_EQ(offered({"orvane", "cat", "none"}, server.store()), Words{});
}

INSTANTIATE_TEST_SUITE_P(Of, Completion, testing::Values(kBash, kZsh, kFish),
                         [](const auto& parameter) { return parameter.param.name; });

}  // namespace
}  // namespace orvane::test
