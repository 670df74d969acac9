#include <gtest/gtest.h>

#include "server.hpp"
#include "text.hpp"

namespace orvane::test {
namespace {

std::string firstCppBlock(const std::string& markdown) {
  const std::string fence = "```cpp\n";
  const std::size_t begin = markdown.find(fence) + fence.size();
  return markdown.substr(begin, markdown.find("```", begin) - begin);
}

TEST(Readme, ShowsTheProducerThatIsCompiled) {
  EXPECT_EQ(firstCppBlock(readFile(README_PATH)), readFile(SMALLEST_PRODUCER_SOURCE));
}

TEST(SmallestProducer, StoresItsRecord) {
  Server server;

  const Ended ended = run({SMALLEST_PRODUCER_PATH, server.queue()});

  EXPECT_EQ(ended.how, "exit 0") << ended.err;
  ASSERT_TRUE(comesTrue([&] { return server.fact(0, "end") != "none"; }));
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
