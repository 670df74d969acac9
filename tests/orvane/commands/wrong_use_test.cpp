// Wrong use of the command: every message is one line, begins with the command and ends with where
// the help is, and has only words of orvane.

#include <gtest/gtest.h>

#include <map>
#include <regex>
#include <sstream>

#include "support/process.hpp"
#include "support/text.hpp"

namespace orvane::test {
namespace {

const std::vector<std::string> kCommands = {"send",  "demo", "ls",     "stat",  "streams", "cat",
                                            "clean", "dump", "verify", "prune", "help"};

Ended orvane(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), ORVANE_PATH);
  return run(arguments);
}

// Returns what is said about wrong use of a command.
std::string wrong(const std::vector<std::string>& arguments) {
  const Ended ended = orvane(arguments);
  EXPECT_EQ(ended.how, "exit 2");
  EXPECT_EQ(ended.out, "");
  const std::string begin = "orvane " + arguments.at(0) + ": ";
  const std::string end = " (orvane " + arguments.at(0) + " --help shows the usage)\n";
  EXPECT_TRUE(startsWith(ended.err, begin) && ended.err.ends_with(end)) << ended.err;
  EXPECT_EQ(ended.err.find('\n') + 1, ended.err.size()) << ended.err;
  return ended.err.substr(begin.size(), ended.err.size() - begin.size() - end.size());
}

// An option that a help text lists: "  -q,--queue NAME".
struct Listed {
  std::string letter;
  std::string name;
  bool hasValue;
};

std::vector<Listed> optionsOf(const std::string& command) {
  const std::regex line(" +(?:-([a-z]),)?(--[a-z-]+)( [A-Z]+)?.*");
  std::istringstream help(orvane({command, "--help"}).out);
  std::vector<Listed> options;
  std::smatch parts;
  for (std::string text; std::getline(help, text);) {
    if (std::regex_match(text, parts, line) && parts[2] != "--help" && parts[2] != "--version") {
      options.push_back({parts[1], parts[2], parts[3].matched});
    }
  }
  return options;
}

TEST(WrongUse, OfACommandThatIsNotThereNamesTheClosest) {
  const std::string hint = " (orvane --help shows the usage)\n";
  EXPECT_EQ(orvane({"snd"}).err, "orvane: no command 'snd'; did you mean send?" + hint);
  EXPECT_EQ(orvane({"snd"}).how, "exit 2");
  EXPECT_EQ(orvane({"snd", "--help"}).err, orvane({"snd"}).err);
  EXPECT_EQ(orvane({"cl"}).err, "orvane: no command 'cl'; did you mean clean?" + hint);
  EXPECT_EQ(orvane({"sned"}).err, "orvane: no command 'sned'; did you mean send?" + hint);
  EXPECT_EQ(orvane({"bake"}).err, "orvane: no command 'bake'" + hint);
  EXPECT_EQ(orvane({""}).err, "orvane: no command ''" + hint);
  EXPECT_EQ(orvane({"--queue", "q"}).err, "orvane: unknown option --queue" + hint);
  EXPECT_EQ(orvane({"--versoin"}).err,
            "orvane: unknown option --versoin; did you mean --version?" + hint);
  EXPECT_EQ(orvane({"--"}).err, "orvane: a command is required" + hint);
  EXPECT_EQ(orvane({"--", "send"}).err, "orvane: a command is required" + hint);
}

TEST(WrongUse, WithoutACommandListsAllAndFails) {
  const Ended bare = orvane({});

  EXPECT_EQ(bare.how, "exit 2");
  EXPECT_EQ(bare.out, orvane({"--help"}).out);
  EXPECT_EQ(bare.err, "");
}

TEST(WrongUse, OfAnUnknownOptionIsNamedFirst) {
  for (const std::string& command : kCommands) {
    EXPECT_EQ(wrong({command, "--colour"}), "unknown option --colour");
    EXPECT_EQ(wrong({command, "--colour=red", "a", "b", "c"}), "unknown option --colour");
    EXPECT_EQ(wrong({command, "-z"}), "unknown option -z");
  }
  EXPECT_EQ(wrong({"send", "--queue", "q", "--segmentsize", "1KiB"}),
            "unknown option --segmentsize; did you mean --segment-size?");
  EXPECT_EQ(wrong({"send", "--timeout", "0", "--colour"}), "unknown option --colour");
  EXPECT_EQ(wrong({"ls", "a", "--colour"}), "unknown option --colour");
}

TEST(WrongUse, OfAnyOptionIsExplained) {
  std::size_t count = 0;
  for (const std::string& command : kCommands) {
    for (const Listed& option : optionsOf(command)) {
      const std::string& name = option.name;
      ++count;
      if (option.hasValue) {
        EXPECT_EQ(wrong({command, name}), name + " needs a value");
        EXPECT_EQ(wrong({command, name, "1", name, "1"}), name + " is given more than once");
      } else {
        EXPECT_EQ(wrong({command, name + "=much"}), name + " takes no value");
      }
      if (!option.letter.empty() && option.hasValue) {
        EXPECT_EQ(wrong({command, "-" + option.letter}), "-" + option.letter + " needs a value");
      }
    }
  }
  EXPECT_GE(count, 14u);
}

TEST(WrongUse, OfTheArgumentsIsExplained) {
  EXPECT_EQ(wrong({"send"}), "FILE is required");
  EXPECT_EQ(wrong({"dump"}), "FILE is required");
  EXPECT_EQ(wrong({"cat"}), "STREAM or --last is required");
  EXPECT_EQ(wrong({"cat", "--last", "a", "b"}), "--last is for one STREAM, or for none");
  EXPECT_EQ(wrong({"demo", "a", "b"}), "unexpected argument 'b'");
  EXPECT_EQ(wrong({"streams", "a", "b"}), "unexpected argument 'b'");
  EXPECT_EQ(wrong({"prune", "--older-than", "1d", "a", "b"}), "unexpected argument 'b'");
  EXPECT_EQ(wrong({"ls", "orders"}), "unexpected argument 'orders'");
  EXPECT_EQ(wrong({"stat", "a", "b"}), "unexpected argument 'b'");
  EXPECT_EQ(wrong({"help", "send", "demo"}), "unexpected argument 'demo'");
  EXPECT_EQ(wrong({"help", "snd"}), "no command 'snd'; did you mean send?");
}

TEST(WrongUse, OfSendsDestinationIsExplained) {
  EXPECT_EQ(wrong({"send", "f"}), "--queue NAME or --socket PATH is required");
  EXPECT_EQ(wrong({"send", "-q", "q", "-s", "s", "f"}), "--queue and --socket exclude each other");
  EXPECT_EQ(wrong({"send", "-q", "q", "--label", "x", "f"}),
            "--label belongs to a lease: use --socket, or leave it out");
}

TEST(WrongUse, OfAValueIsExplained) {
  for (const char* seconds : {"0", "86401", "-1", "4294967297", "18446744073709551616", "0x10",
                              "1.5", "1s", " 1", "ten", ""}) {
    EXPECT_EQ(wrong({"send", "--queue", "q", "--timeout", seconds, "f"}),
              "--timeout: must be a number, 1 to 86400");
  }
  EXPECT_EQ(wrong({"send", "--queue", "q", "--segment-size", "0", "f"}),
            "--segment-size: must be at least 1");
  for (const char* size :
       {"4furlongs", "-5", "18446744073709551616", "16EiB", "19EB", "", "1.5k"}) {
    EXPECT_EQ(wrong({"send", "--queue", "q", "--segment-size", size, "f"}),
              "--segment-size: must be a number of bytes, such as 512KiB");
  }
  EXPECT_EQ(wrong({"send", "--socket", "s", "--transport", "pipe", "f"}),
            "--transport: must be auto, ring or queue");
  for (const std::string& label : {std::string(129, 'x'), std::string("a\nb")}) {
    EXPECT_EQ(wrong({"send", "--socket", "s", "--label", label, "f"}),
              "--label: must have at most 128 bytes and no control characters");
  }
  for (const char* const time : {"", "tomorrow", "2026-11-31", "2"}) {
    for (const char* const option : {"--since", "--until"}) {
      EXPECT_EQ(wrong({"streams", option, time}),
                std::string(option) +
                    ": must be a time, such as 2026-11-21, 2026-11-21T02:32, yesterday or 2h");
    }
  }
  EXPECT_EQ(wrong({"streams", "--end", "done"}),
            "--end: must be closed, stopped, cut-off, broken or open");
  EXPECT_EQ(wrong({"cat", "s", "--segment", "-1"}),
            "--segment: must be a number, 0 to 18446744073709551615");
  for (const char* seconds : {"-1", "86401", "nan", "inf", "", "1s"}) {
    EXPECT_EQ(wrong({"stat", "q", "--interval", seconds}),
              "--interval: must be seconds, 0 to 86400");
  }
}

TEST(WrongUse, LettersMeanTheSameInEveryCommand) {
  std::map<std::string, std::string> meanings;
  for (const std::string& command : kCommands) {
    for (const Listed& option : optionsOf(command)) {
      if (!option.letter.empty()) {
        EXPECT_EQ(meanings.emplace(option.letter, option.name).first->second, option.name);
      }
    }
  }
  EXPECT_EQ(meanings, (std::map<std::string, std::string>{{"i", "--interval"},
                                                          {"j", "--json"},
                                                          {"n", "--dry-run"},
                                                          {"q", "--queue"},
                                                          {"s", "--socket"},
                                                          {"t", "--timeout"},
                                                          {"w", "--wait"}}));
}

TEST(HelpCommand, ShowsWhatTheOptionShows) {
  EXPECT_EQ(orvane({"help"}).out, orvane({"--help"}).out);
  for (const std::string& command : kCommands) {
    const Ended help = orvane({"help", command});
    EXPECT_EQ(help.how, "exit 0");
    EXPECT_EQ(help.err, "");
    EXPECT_EQ(help.out, orvane({command, "--help"}).out);
    EXPECT_TRUE(contains(help.out, "Usage: orvane " + command)) << help.out;
  }
}

}  // namespace
}  // namespace orvane::test
