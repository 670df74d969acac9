#pragma once

#include <gtest/gtest.h>

#include <regex>
#include <string>

namespace orvane::test {

inline testing::AssertionResult matches(const std::string& text, const std::string& pattern) {
  return std::regex_match(text, std::regex(pattern)) ? testing::AssertionSuccess()
                                                     : testing::AssertionFailure() << text;
}

inline testing::AssertionResult contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos ? testing::AssertionSuccess()
                                              : testing::AssertionFailure() << text;
}

inline testing::AssertionResult startsWith(const std::string& text, const std::string& part) {
  return text.starts_with(part) ? testing::AssertionSuccess() : testing::AssertionFailure() << text;
}

// A program for Python: runs its arguments with a standard output whose reader has gone.
constexpr char kWithoutReader[] =
    "import os, subprocess, sys\n"
    "reader, writer = os.pipe()\n"
    "os.close(reader)\n"
    "code = subprocess.run(sys.argv[1:], stdout=writer).returncode\n"
    "sys.exit(code if code >= 0 else 128 - code)\n";

}  // namespace orvane::test
