// orvane cat --follow, of streams that a real server compresses meanwhile.

#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>

#include "orvane/inspect/follow_fixture.hpp"

namespace orvane::test {
namespace {

class FollowOfCompressedFiles : public FollowTest {
 protected:
  FollowOfCompressedFiles() : FollowTest({"--compress", "zstd"}) {}

  // Sends, in parts, more than the MiB that decides whether the segment is compressed.
  std::string sendMuch() {
    std::string all;
    for (char c = 'a'; c <= 'l'; ++c) {
      const std::string part(100000, c);
      producer.send(part);
      all += part;
    }
    return all;
  }

  static bool printsAll(const Process& process, const std::string& text) {
    return eventually([&] { return process.output().size() >= text.size(); }) &&
           process.output() == text;
  }

  static bool isCompressed(const std::string& stream) {
    return eventually([&] {
      return std::filesystem::exists(stream + "/segment-000000.zst.part") &&
             !std::filesystem::exists(stream + "/segment-000000.part");
    });
  }
};

TEST_F(FollowOfCompressedFiles, GoesOnWhenACompressedFileTakesThePlaceOfThePlainOne) {
  producer.send("hello ");
  const std::string stream = folder();
  Process follow(followCommand(stream));
  EXPECT_TRUE(prints(follow, "hello "));
  std::string all = "hello " + sendMuch();
  EXPECT_TRUE(printsAll(follow, all));
  EXPECT_TRUE(isCompressed(stream));
  for (const char* text : {"one", "two", "three"}) {
    producer.send(text);
    all += text;
    EXPECT_TRUE(printsAll(follow, all));
  }
  producer.endSegment();
  producer.send("plain");
  producer.close();

  const Ended ended = follow.wait();
  EXPECT_EQ(ended.how, "exit 0");
  EXPECT_TRUE(ended.out == all + "plain");
  EXPECT_EQ(ended.err, "");
}

TEST_F(FollowOfCompressedFiles, BeginsWithASegmentThatIsCompressedAlready) {
  const std::string all = sendMuch();
  const std::string stream = folder();
  EXPECT_TRUE(isCompressed(stream));
  Process follow(followCommand(stream));
  EXPECT_TRUE(printsAll(follow, all));
  producer.close();

  const Ended ended = follow.wait();
  EXPECT_EQ(ended.how, "exit 0");
  EXPECT_TRUE(ended.out == all);
  EXPECT_EQ(ended.err, "");
}

TEST_F(FollowOfCompressedFiles, GoesOnUntilTheNextServerHasFinishedTheStream) {
  const std::string all = sendMuch();
  const std::string stream = folder();
  Process follow(followCommand(stream));
  EXPECT_TRUE(printsAll(follow, all));
  server.process().signalAll(SIGKILL);
  server.process().wait();
  EXPECT_FALSE(follow.hasEnded());
  const ServerProcess next({"--queue", server.queue(), "--store", server.store()});

  const Ended ended = follow.wait();
  EXPECT_EQ(ended.how, "exit 1");
  EXPECT_TRUE(ended.out == all);
  EXPECT_EQ(ended.err,
            "orvane cat: the stream in " + stream + " is not whole: it ended as cut-off\n");
}

}  // namespace
}  // namespace orvane::test
