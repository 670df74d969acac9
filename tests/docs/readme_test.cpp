#include <gtest/gtest.h>

#include "support/eventually.hpp"
#include "support/server.hpp"
#include "support/text.hpp"

namespace orvane::test {
namespace {

std::vector<std::string> blocks(const std::string& language, const std::string& markdown) {
  const std::string fence = "```" + language + "\n";
  std::vector<std::string> found;
  for (std::size_t at = 0; (at = markdown.find(fence, at)) != std::string::npos;) {
    at += fence.size();
    found.push_back(markdown.substr(at, markdown.find("```", at) - at));
  }
  return found;
}

using Sources = std::vector<std::string>;

TEST(Readme, ShowsTheProducersThatAreCompiled) {
  const std::string readme = readFile(README_PATH);
  EXPECT_EQ(blocks("cpp", readme),
            (Sources{readFile(SMALLEST_PRODUCER_SOURCE), readFile(WRITER_LEASE_SOURCE),
                     readFile(WRITER_QUEUE_SOURCE)}));
  EXPECT_EQ(blocks("c", readme), Sources{readFile(SMALLEST_PRODUCER_C_SOURCE)});
  EXPECT_EQ(blocks("python", readme), Sources{readFile(SMALLEST_PRODUCER_PYTHON_SOURCE)});
}

TEST(SmallestProducer, StoresItsData) {
  const TempFolder folder;
  const std::string socket = folder.path() + "/socket";
  Server server({"--socket", socket});

  const Ended ended = run({SMALLEST_PRODUCER_PATH, socket});

  EXPECT_EQ(ended.how, "exit 0") << ended.err;
  EXPECT_EQ(ended.out, "receipt stream=" + server.fact(0, "stream") +
                           " records=1 bytes=20 segments=1 end=closed\n");
  EXPECT_EQ(server.content(0), "14 crates of oranges");
  EXPECT_EQ(server.fact(0, "label"), "oranges");
}

TEST(SmallestProducer, ReportsAMissingServer) {
  const Ended ended = run({SMALLEST_PRODUCER_PATH, "/nowhere/socket"});

  EXPECT_EQ(ended.how, "exit 1");
  EXPECT_EQ(ended.err,
            "producer: No server to ask for a lease at /nowhere/socket: No such file or directory; "
            "is it running, and may this user connect?\n");
}

TEST(SmallestProducerInC, StoresItsData) {
  const TempFolder folder;
  const std::string socket = folder.path() + "/socket";
  Server server({"--socket", socket});

  const Ended ended = run({SMALLEST_PRODUCER_C_PATH, socket});

  EXPECT_EQ(ended.how, "exit 0") << ended.err;
  EXPECT_EQ(ended.out, "stored 20 bytes as " + server.fact(0, "stream") + "\n");
  EXPECT_EQ(server.content(0), "14 crates of oranges");
  EXPECT_EQ(server.fact(0, "label"), "oranges");
}

TEST(SmallestProducerInC, ReportsAMissingServer) {
  const Ended ended = run({SMALLEST_PRODUCER_C_PATH, "/nowhere/socket"});

  EXPECT_EQ(ended.how, "exit 1");
  EXPECT_EQ(ended.err,
            "producer: No server to ask for a lease at /nowhere/socket: No such file or directory; "
            "is it running, and may this user connect?\n");
}

TEST(WriterOnAQueue, StoresItsRecord) {
  Server server;

  const Ended ended = run({WRITER_QUEUE_PATH, server.queue()});

  EXPECT_EQ(ended.how, "exit 0") << ended.err;
  ASSERT_TRUE(eventually([&] { return server.fact(0, "end") != "none"; }));
  EXPECT_EQ(server.content(0), "14 crates of oranges");
  EXPECT_EQ(server.fact(0, "end"), "closed");
}

TEST(WriterOnAQueue, ReportsAMissingQueue) {
  const Ended ended = run({WRITER_QUEUE_PATH, "nobody-serves-this"});

  EXPECT_EQ(ended.how, "exit 1");
  EXPECT_EQ(ended.err, "producer: No such file or directory\n");
}

}  // namespace
}  // namespace orvane::test
