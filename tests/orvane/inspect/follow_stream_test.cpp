// orvane cat --follow, of streams that a real server stores.

#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>
#include <fstream>
#include <orvane/orvane.hpp>

#include "orvane/inspect/follow_fixture.hpp"
#include "support/lease_fixture.hpp"
#include "support/text.hpp"

namespace orvane::test {
namespace {

class Follow : public FollowTest {
 protected:
  static bool hasBytes(const std::string& file, std::uintmax_t bytes) {
    return eventually([&] {
      std::error_code notThere;
      return std::filesystem::file_size(file, notThere) == bytes;
    });
  }
};

TEST_F(Follow, PrintsWhatWasAnsweredAndEndsWithTheStream) {
  producer.send("hello ");
  Process follow(followCommand(folder()));
  EXPECT_TRUE(prints(follow, "hello "));
  producer.send("wor");
  EXPECT_TRUE(prints(follow, "hello wor"));
  producer.send("ld");
  producer.endSegment();
  producer.send("again");
  EXPECT_TRUE(prints(follow, "hello worldagain"));
  producer.send(" and again");
  producer.close();

  const Ended ended = follow.wait();
  EXPECT_EQ(ended.how, "exit 0");
  EXPECT_EQ(ended.out, "hello worldagain and again");
  EXPECT_EQ(ended.err, "");
}

TEST_F(Follow, PrintsManySegments) {
  std::string all;
  producer.send("begin");
  Process follow(followCommand(folder()));
  for (int i = 0; i < 50; ++i) {
    const std::string text(100000 + static_cast<std::size_t>(i), static_cast<char>('a' + i % 26));
    producer.send(text);
    producer.endSegment();
    all += text;
  }
  producer.close();

  const Ended ended = follow.wait();
  EXPECT_EQ(ended.how, "exit 0") << ended.err;
  EXPECT_TRUE(ended.out == "begin" + all);
}

// A part of a record is removed again when the disk is full.
TEST_F(Follow, PrintsNoByteThatWasNotAnswered) {
  producer.send("hello");
  const std::string file = folder() + "/segment-000000.part";
  ASSERT_TRUE(hasBytes(file, 5));
  std::ofstream(file, std::ios::app) << "a part of a record";
  Process follow(followCommand(folder()));
  EXPECT_TRUE(prints(follow, "hello"));
  std::filesystem::resize_file(file, 5);
  producer.close();

  const Ended ended = follow.wait();
  EXPECT_EQ(ended.how, "exit 0") << ended.err;
  EXPECT_EQ(ended.out, "hello");
}

TEST_F(Follow, FailsIfASegmentDiffersFromWhatWasPrinted) {
  producer.send("hello");
  Process follow(followCommand(folder()));
  EXPECT_TRUE(prints(follow, "hello"));
  const std::string file = folder() + "/segment-000000.part";
  std::fstream(file, std::ios::in | std::ios::out) << "J";
  producer.close();

  const Ended ended = follow.wait();
  EXPECT_EQ(ended.how, "exit 1");
  EXPECT_EQ(ended.out, "hello");
  EXPECT_TRUE(matches(ended.err,
                      "orvane cat: segment-000000 of the stream in .* is damaged: its "
                      "checksum is [0-9a-f]{8} instead of 3610a686; --force prints it "
                      "as it is\n"))
      << ended.err;
}

// The file is right when it ends, but was not when it was printed.
TEST_F(Follow, FailsIfWhatWasPrintedIsTakenBack) {
  producer.send("hello");
  const std::string file = folder() + "/segment-000000.part";
  ASSERT_TRUE(hasBytes(file, 5));
  std::fstream(file, std::ios::in | std::ios::out) << "J";
  Process follow(followCommand(folder()));
  EXPECT_TRUE(prints(follow, "Jello"));
  std::fstream(file, std::ios::in | std::ios::out) << "h";
  producer.close();

  const Ended ended = follow.wait();
  EXPECT_EQ(ended.how, "exit 1");
  EXPECT_TRUE(matches(ended.err,
                      "orvane cat: segment-000000 of the stream in .* is damaged: it "
                      "was changed after a part of it was printed: its checksum is "
                      "[0-9a-f]{8} instead of 3610a686; --force prints it as it is\n"))
      << ended.err;
}

TEST_F(Follow, FailsWithAllThatIsStoredIfTheStreamIsNotClosed) {
  producer.send("hello");
  producer.endSegment();
  producer.send("world");
  const std::string stream = folder();
  Process follow(followCommand(stream));
  EXPECT_TRUE(prints(follow, "helloworld"));
  producer.send("!");
  producer.stop();

  Ended ended = follow.wait();
  EXPECT_EQ(ended.how, "exit 1");
  EXPECT_EQ(ended.out, "helloworld!");
  EXPECT_EQ(ended.err,
            "orvane cat: the stream in " + stream + " is not whole: it ended as stopped\n");

  ended = run(followCommand(stream, {"--force"}));
  EXPECT_EQ(ended.how, "exit 0");
  EXPECT_EQ(ended.out, "helloworld!");
  EXPECT_EQ(ended.err,
            "orvane cat: the stream in " + stream + " is not whole: it ended as stopped\n");
}

TEST_F(Follow, OfAStreamThatHasEndedPrintsIt) {
  producer.send("hello");
  producer.close();
  ASSERT_TRUE(eventually([&] { return server.fact(0, "end") == "closed"; }));
  const Ended ended = run(followCommand(server.streams().front()));
  EXPECT_EQ(ended.how, "exit 0");
  EXPECT_EQ(ended.out, "hello");
}

TEST_F(Follow, OfTheNewestStreamNeedsNoName) {
  producer.send("hello");
  folder();
  Process follow({ORVANE_PATH, "cat", "--follow", "--last", "--store", server.store()});
  EXPECT_TRUE(prints(follow, "hello"));
  producer.close();
  EXPECT_EQ(follow.wait().how, "exit 0");
}

TEST_F(Follow, GoesOnUntilTheNextServerHasFinishedTheStream) {
  producer.send("hello");
  const std::string stream = folder();
  Process follow(followCommand(stream));
  EXPECT_TRUE(prints(follow, "hello"));
  server.process().signalAll(SIGKILL);
  server.process().wait();
  EXPECT_FALSE(follow.hasEnded());
  const ServerProcess next({"--queue", server.queue(), "--store", server.store()});

  const Ended ended = follow.wait();
  EXPECT_EQ(ended.how, "exit 1");
  EXPECT_EQ(ended.out, "hello");
  EXPECT_EQ(ended.err,
            "orvane cat: the stream in " + stream + " is not whole: it ended as cut-off\n");
}

TEST(FollowedStream, MustBeThere) {
  const TempFolder empty;
  const Ended ended = run(followCommand(empty.path()));
  EXPECT_EQ(ended.how, "exit 1");
  EXPECT_EQ(ended.err, "orvane cat: no stream is stored in " + empty.path() +
                           ": name a folder with a manifest, such as STORE/ID\n");
  EXPECT_EQ(run(followCommand(empty.path() + "/none")).how, "exit 1");
  EXPECT_EQ(run(followCommand(empty.path(), {"--segment", "0"})).err,
            "orvane cat: --follow and --segment exclude each other (orvane cat --help shows the "
            "usage)\n");
}

class FollowOfALease : public LeaseTest {
 protected:
  FollowOfALease() { start(); }

  // The folder of the only stream of the store, once its manifest has begun.
  std::string onlyFolder() const {
    const auto path = [this] { return store.path() + "/" + namesIn(store.path()).at(0); };
    EXPECT_TRUE(eventually([&] {
      return namesIn(store.path()).size() == 1 &&
             std::filesystem::exists(path() + "/manifest.part");
    }));
    return path();
  }

  // Sends what is written to it.
  Words sendByRing(const std::string& segmentSize) const {
    return {ORVANE_PATH, "send",    "--socket",       socket,      "--transport",
            "ring",      "--quiet", "--segment-size", segmentSize, "-"};
  }
};

TEST_F(FollowOfALease, WithAQueueNeedsNoSocket) {
  const Lease lease(socket, 30, Transport::queue);
  TextStream stream(lease.queueName());
  stream.send("hello");
  Process follow(followCommand(onlyFolder()));
  EXPECT_TRUE(prints(follow, "hello"));
  stream.send(" world");
  EXPECT_TRUE(prints(follow, "hello world"));
  stream.close();

  const Ended ended = follow.wait();
  EXPECT_EQ(ended.how, "exit 0");
  EXPECT_EQ(ended.out, "hello world");
  EXPECT_EQ(ended.err, "");
}

TEST_F(FollowOfALease, WithARingFindsItsTotalsAtTheSocket) {
  const std::string data(8000000, 'x');
  Process send(sendByRing("1GiB"));
  send.write(data);
  Process follow(followCommand(onlyFolder(), {"--socket", socket}));
  EXPECT_TRUE(eventually([&] { return !follow.output().empty(); }));  // of the open segment
  send.closeInput();
  EXPECT_EQ(send.wait().how, "exit 0");

  const Ended ended = follow.wait();
  EXPECT_EQ(ended.how, "exit 0");
  EXPECT_TRUE(ended.out == data);
  EXPECT_EQ(ended.err, "");
}

TEST_F(FollowOfALease, WithARingPrintsEachSegmentAtItsEndWithoutTheSocket) {
  const std::string data(5500000, 'x');
  Process send(sendByRing("1000000"));
  send.write(data.substr(0, 1500000));
  Process follow(followCommand(onlyFolder()));
  EXPECT_TRUE(eventually([&] { return follow.output().size() >= 1000000; }));
  send.write(data.substr(1500000));
  EXPECT_TRUE(eventually([&] { return follow.output().size() > 1000000; }));
  send.closeInput();
  EXPECT_EQ(send.wait().how, "exit 0");

  const Ended ended = follow.wait();
  EXPECT_EQ(ended.how, "exit 0");
  EXPECT_TRUE(ended.out == data);
  EXPECT_TRUE(startsWith(ended.err, "orvane cat: each segment is printed when it has ended: "))
      << ended.err;
}

}  // namespace
}  // namespace orvane::test
