#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/temp_folder.hpp"

namespace orvane::test {

// `orvane send` to a server that leases, at a socket of this test.
class SendLeaseTest : public testing::Test {
 protected:
  std::vector<std::string> sendCommand(const std::vector<std::string>& arguments) const {
    std::vector<std::string> words = {ORVANE_PATH, "send", "--socket", socket};
    words.insert(words.end(), arguments.begin(), arguments.end());
    return words;
  }

  const TempFolder folder;
  const std::string socket = folder.path() + "/socket";
};

}  // namespace orvane::test
