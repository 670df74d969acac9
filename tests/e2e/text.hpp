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

}  // namespace orvane::test
