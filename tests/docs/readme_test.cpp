#include <gtest/gtest.h>

#include "support/eventually.hpp"
#include "support/server.hpp"
#include "support/text.hpp"

namespace orvane::test {
namespace {

std::vector<std::string> cppBlocks(const std::string& markdown) {
  const std::string fence = "```cpp\n";
  std::vector<std::string> blocks;
  for (std::size_t at = 0; (at = markdown.find(fence, at)) != std::string::npos;) {
    at += fence.size();
    blocks.push_back(markdown.substr(at, markdown.find("```", at) - at));
  }
  return blocks;
}

TEST(Readme, ShowsTheProducersThatAreCompiled) {
  EXPECT_EQ(cppBlocks(readFile(README_PATH)),
            (std::vector<std::string>{readFile(SMALLEST_PRODUCER_SOURCE),
                                      readFile(LEASED_PRODUCER_SOURCE)}));
}

TEST(SmallestProducer, StoresItsRecord) {
  Server server;

  const Ended ended = run({SMALLEST_PRODUCER_PATH, server.queue()});

  EXPECT_EQ(ended.how, "exit 0") << ended.err;
  ASSERT_TRUE(eventually([&] { return server.fact(0, "end") != "none"; }));
  EXPECT_EQ(server.content(0), "14 crates of oranges");
  EXPECT_EQ(server.fact(0, "end"), "closed");
}

TEST(SmallestProducer, ReportsAMissingQueue) {
  const Ended ended = run({SMALLEST_PRODUCER_PATH, "nobody-serves-this"});

  EXPECT_EQ(ended.how, "exit 1");
  EXPECT_EQ(ended.err, "producer: No such file or directory\n");
}

}  // namespace
}  // namespace orvane::test
