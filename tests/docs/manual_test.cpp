// The manuals say what --help says.

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <map>
#include <sstream>

#include "support/process.hpp"
#include "support/temp_folder.hpp"
#include "support/text.hpp"

namespace orvane::test {
namespace {

// What a help text lists of an option: its letter and its default, which most options do not have.
//   -t,--timeout SECONDS=30
struct Listed {
  std::string letter;
  std::string value;
};
using Options = std::map<std::string, Listed>;

Options optionsOf(const std::vector<std::string>& command) {
  const std::regex option(" +(?:-([a-z]),)?--([a-z-]+)(.*)");
  std::istringstream help(run(command).out);
  Options options;
  std::smatch parts;
  for (std::string line; std::getline(help, line);) {
    if (std::regex_match(line, parts, option)) {
      const std::string form = parts[3].str().substr(0, parts[3].str().find("  "));
      const std::size_t equals = form.find('=');
      const std::string end = equals == std::string::npos ? "" : form.substr(equals + 1);
      options[parts[2]] = {parts[1], end.substr(0, end.find(' '))};
    }
  }
  return options;
}

// A part of a manual: from a heading to the next one.
std::string partOf(const std::string& manual, const std::string& heading) {
  const std::size_t begin = manual.find("\n" + heading + "\n");
  if (begin == std::string::npos) {
    ADD_FAILURE() << "no part " << heading;
    return "";
  }
  const std::size_t end =
      std::min(manual.find("\n.Sh ", begin + 1), manual.find("\n.Ss ", begin + 1));
  return manual.substr(begin, end - begin + 1);
}

// The items of a list, each with its text.
std::map<std::string, std::string> itemsOf(const std::string& part, const std::string& kind) {
  std::map<std::string, std::string> items;
  const std::regex item("\n\\.It " + kind + "([^\n]*)\n((?:(?!\\.It |\\.El)[^\n]*\n)*)");
  for (std::size_t at = 0;;) {
    std::smatch found;
    const std::string rest = part.substr(at);
    if (!std::regex_search(rest, found, item)) {
      return items;
    }
    items[found[1]] = found[2];
    at += static_cast<std::size_t>(found.position() + found.length()) - 1;
  }
}

std::string nameOf(const std::string& item) {
  std::smatch name;
  std::regex_search(item, name, std::regex("-([a-z-]+)"));
  return name[1];
}

// "q , Fl -queue Ar name" has the letter q.
std::string letterOf(const std::string& item) {
  std::smatch letter;
  std::regex_search(item, letter, std::regex("^([a-z]) , "));
  return letter[1];
}

void expectSameOptions(const std::string& part, const Options& inHelp) {
  std::vector<std::string> expected;
  std::vector<std::string> described;
  for (const auto& [name, value] : inHelp) {
    expected.push_back(name);
  }
  for (const auto& [item, text] : itemsOf(part, "Fl ")) {
    described.push_back(nameOf(item));
    const auto known = inHelp.find(described.back());
    if (known != inHelp.end()) {
      EXPECT_TRUE(contains(item + text, known->second.value)) << item;
      EXPECT_EQ(letterOf(item), known->second.letter) << item;
    }
  }
  std::sort(described.begin(), described.end());
  EXPECT_EQ(described, expected);
}

TEST(Manual, OfTheServerHasItsOptions) {
  const Options options = optionsOf({ORVANED_PATH, "--help"});

  ASSERT_EQ(options.at("messages").value, "8");
  ASSERT_EQ(options.at("trace").value, "");
  expectSameOptions(partOf(readFile(MAN_FOLDER "/orvaned.8"), ".Sh OPTIONS"), options);
}

TEST(Manual, OfTheCommandHasItsOptions) {
  const std::string manual = readFile(MAN_FOLDER "/orvane.1");
  for (const char* command : {"send", "demo", "ls", "stat", "streams", "cat", "clean", "dump",
                              "verify", "prune", "fetch", "help"}) {
    SCOPED_TRACE(command);
    Options options = optionsOf({ORVANE_PATH, command, "--help"});
    EXPECT_EQ(options.erase("help") + options.erase("version"), 2U);  // said once, for all
    expectSameOptions(partOf(manual, std::string(".Ss ") + command), options);
  }
}

#ifdef ORVANE_FORWARD_PATH
TEST(Manual, OfTheForwarderHasItsOptionsAndExitCodes) {
  const Options options = optionsOf({ORVANE_FORWARD_PATH, "--help"});
  const std::string manual = readFile(MAN_FOLDER "/orvane-forward.8");

  ASSERT_EQ(options.at("streams-at-once").value, "4");
  expectSameOptions(partOf(manual, ".Sh OPTIONS"), options);
  EXPECT_EQ(itemsOf(partOf(manual, ".Sh EXIT STATUS"), "").size(), 3U);
}
#endif

TEST(Manual, OfTheCommandHasAllCommands) {
  const std::string help = run({ORVANE_PATH, "--help"}).out;
  const std::string manual = readFile(MAN_FOLDER "/orvane.1");
  std::istringstream lines(help.substr(help.find("Subcommands:\n") + 13));
  int count = 0;
  for (std::string name, rest; lines >> name && std::getline(lines, rest); ++count) {
    EXPECT_TRUE(contains(manual, "\n.Ss " + name + "\n")) << name;
  }
  EXPECT_EQ(count, 12);
}

// "  3  the server refused" of the help is "The server refused." of the manual.
std::map<std::string, std::string> numberedLines(const std::string& help) {
  std::map<std::string, std::string> meanings;
  const std::regex line("\n  ([0-9]+)  ([^\n]+)");
  for (auto at = std::sregex_iterator(help.begin(), help.end(), line); at != std::sregex_iterator();
       ++at) {
    meanings[(*at)[1]] = (*at)[2];
  }
  return meanings;
}

TEST(Manual, OfTheServerHasItsAnswers) {
  auto answers = itemsOf(partOf(readFile(MAN_FOLDER "/orvaned.8"), ".Sh DIAGNOSTICS"), "");
  for (auto& [number, meaning] : answers) {
    meaning.pop_back();
  }
  ASSERT_EQ(answers.size(), 9U);
  EXPECT_EQ(answers, numberedLines(run({ORVANED_PATH, "--help"}).out));
}

TEST(Manual, OfTheCommandHasTheExitCodesOfSend) {
  auto codes = itemsOf(partOf(readFile(MAN_FOLDER "/orvane.1"), ".Sh EXIT STATUS"), "");
  for (auto& [number, meaning] : codes) {
    meaning.pop_back();
    meaning.erase(meaning.ends_with("...") ? meaning.size() : meaning.size() - 1);
    meaning.front() = static_cast<char>(std::tolower(meaning.front()));
  }
  ASSERT_EQ(codes.size(), 7U);
  EXPECT_EQ(codes, numberedLines(run({ORVANE_PATH, "send", "--help"}).out));
}

TEST(Manual, OfTheServerHasItsExitCodes) {
  const std::string help = run({ORVANED_PATH, "--help"}).out;
  for (auto& [number, meaning] :
       itemsOf(partOf(readFile(MAN_FOLDER "/orvaned.8"), ".Sh EXIT STATUS"), "")) {
    std::string said = meaning.substr(0, meaning.size() - 2);
    said.front() = static_cast<char>(std::tolower(said.front()));
    said.insert(0, " ").insert(0, number);
    EXPECT_TRUE(contains(help, said));
  }
}

// "kStatusNoRoom" with the text "4: the batch is full." becomes an assertion.
std::string assertionOf(const std::string& name, const std::string& text) {
  std::string assertion = "static_assert(orvane::";
  assertion += name;
  return assertion + " == " + text.substr(0, text.find(':')) + ");\n";
}

TEST(Manual, OfTheLibraryHasAnExampleThatCompilesAndTheStatuses) {
  const std::string manual = readFile(MAN_FOLDER "/orvane.3");
  const std::string example = partOf(manual, ".Sh EXAMPLES");
  const std::size_t begin = example.find(".Bd -literal\n") + 13;
  std::string source = "#include <orvane/orvane.hpp>\n";
  for (const auto& [name, text] : itemsOf(partOf(manual, ".Sh ERRORS"), "Dv ")) {
    source += assertionOf(name, text);
  }
  EXPECT_TRUE(contains(source, "static_assert(orvane::kLeaseLost == 901);\n"));
  source += "void send(const unsigned char* data, unsigned long size) {\n";
  source += example.substr(begin, example.find(".Ed\n") - begin) + "}\n";

  const std::string include = "-I";
  const Ended ended = run({CXX_PATH, "-std=c++17", "-fsyntax-only", include + BOOST_FOLDER,
                           include + LIBRARY_FOLDER, include + PLATFORM_FOLDER, "-x", "c++", "-"},
                          source);

  EXPECT_EQ(ended.how, "exit 0") << ended.err;
}

}  // namespace
}  // namespace orvane::test
