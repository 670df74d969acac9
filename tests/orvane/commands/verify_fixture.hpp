#pragma once

#include <string>
#include <vector>

#include "orvane/store/stored_streams.hpp"
#include "support/text.hpp"

namespace orvane::test::verify_command {

// What is printed in the end.
inline std::string summary(const std::string& counts) {
  return "checked " + counts + ", [0-9]+\\.[0-9]{2} s, [0-9.]+ [kMG]?B/s\n";
}

class VerifyTest : public StoredStreams {
 protected:
  Ended verify(std::vector<std::string> arguments = {}) const {
    arguments.insert(arguments.begin(), "verify");
    arguments.push_back(store.path());
    return runOrvane(arguments);
  }

  // These lines and no others are printed before the summary; `faults` is such as "1 fault".
  void expectFound(const std::string& lines, const std::string& faults) const {
    const Ended ended = verify();
    EXPECT_EQ(ended.how, "exit 1");
    EXPECT_EQ(ended.out.substr(0, ended.out.rfind("checked ")), lines);
    EXPECT_EQ(ended.err, "orvane verify: " + faults + " in 1 stream\n");
  }
  std::string line(const std::string& file, const std::string& fault) const {
    return path(kFirst, file) + ": " + fault + "\n";
  }
  void expectFault(const std::string& file, const std::string& fault) const {
    expectFound(line(file, fault), "1 fault");
  }
  void expectWhole() const {
    const Ended ended = verify();
    EXPECT_EQ(ended.how, "exit 0") << ended.out;
    EXPECT_TRUE(startsWith(ended.out, "checked "));
    EXPECT_EQ(ended.err, "");
  }
};

}  // namespace orvane::test::verify_command
