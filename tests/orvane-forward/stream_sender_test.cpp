#include "stream_sender.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <map>
#include <stdexcept>

#include "orvane/store/stored_streams.hpp"

namespace orvane::test::stream_sender {
namespace {

namespace fs = std::filesystem;
using forward::Chunk;
using Result = forward::StreamSender::Result;

constexpr char kBegin[] = "orvane.1.host.orders.orders-20261121T023224-4711_0.";

// What was offered, in order: the subject without its begin, and the data.
class StreamSenderTest : public StoredStreams {
 protected:
  forward::StreamSender sender() {
    return {store.path(), "host", [this] { return chunkSize; },
            [this](const Chunk& chunk) { return take(chunk); }};
  }

  bool take(const Chunk& chunk) {
    if (chunk.data.size() > limit) {
      chunkSize = limit;
      return false;
    }
    EXPECT_TRUE(chunk.subject.starts_with(kBegin)) << chunk.subject;
    subjects.push_back(chunk.subject.substr(sizeof kBegin - 1));
    data[subjects.back()] = std::string(chunk.data.begin(), chunk.data.end());
    EXPECT_EQ(chunk.checksum, crc32Of(data[subjects.back()]));
    if (chunk.isLast) {
      last.push_back(subjects.back());
    }
    return true;
  }

  std::size_t chunkSize = 1000;
  std::size_t limit = 1000;
  Names subjects;
  Names last;
  std::map<std::string, std::string> data;
};

TEST_F(StreamSenderTest, OffersEachFileAndTheManifestLast) {
  writeStream(kFirst);
  const auto report = sender().send(kFirst);

  EXPECT_EQ(report.result, Result::forwarded);
  EXPECT_EQ(report.damaged, Names{});
  EXPECT_EQ(subjects, (Names{"segment-000000.0-5", "segment-000001.0-6", "manifest"}));
  EXPECT_EQ(last, subjects);
  EXPECT_EQ(data["segment-000000.0-5"], "hello");
  EXPECT_EQ(data["manifest"], readFile(path(kFirst, "manifest")));
}

TEST_F(StreamSenderTest, CutsFilesIntoChunks) {
  writeStream(kFirst);
  chunkSize = 4;
  sender().send(kFirst);

  EXPECT_EQ((Names{subjects.begin(), subjects.begin() + 4}),
            (Names{"segment-000000.0-4", "segment-000000.4-1", "segment-000001.0-4",
                   "segment-000001.4-2"}));
  EXPECT_EQ(last, (Names{"segment-000000.4-1", "segment-000001.4-2", "manifest"}));
  EXPECT_EQ(subjects[4], "manifest.0-4");
  EXPECT_EQ(subjects.back(), "manifest");
  std::string manifest;
  for (std::size_t i = 4; i < subjects.size(); ++i) {
    manifest += data[subjects[i]];
  }
  EXPECT_EQ(manifest, readFile(path(kFirst, "manifest")));
}

TEST_F(StreamSenderTest, GoesOnWithSmallerChunksWhenOneIsTooLarge) {
  writeStream(kFirst);
  chunkSize = 5;
  limit = 3;
  sender().send(kFirst);

  EXPECT_EQ((Names{subjects.begin(), subjects.begin() + 4}),
            (Names{"segment-000000.0-3", "segment-000000.3-2", "segment-000001.0-3",
                   "segment-000001.3-3"}));
}

TEST_F(StreamSenderTest, OffersTheFilesOfADeadServerAsTheyAreNamed) {
  write(kFirst, "segment-000000", "hello");
  write(kFirst, "segment-000001.part", "");
  write(kFirst, "other-records", std::string(48, 'h') + "data!");
  const std::string others = std::string(48, 'h') + "data!";
  char checksum[16] = {};
  std::snprintf(checksum, sizeof checksum, "%08x", crc32Of(others));
  write(kFirst, "manifest",
        withChecksum(headOf(kFirst) + kHello +
                     "unfinished file=segment-000001.part bytes=0 crc32=00000000\n"
                     "other-records=1 bytes=5 crc32=" +
                     checksum + "\nskipped=0\n" +
                     endingOf(kFirst, "records=2 bytes=10 segments=1", "cut-off")));
  const auto report = sender().send(kFirst);

  EXPECT_EQ(report.damaged, Names{});
  EXPECT_EQ(subjects, (Names{"segment-000000.0-5", "segment-000001%2Epart.0-0",
                             "other-records.0-53", "manifest"}));
}

TEST_F(StreamSenderTest, OffersAFileThatCouldNotBeRenamed) {
  writeStream(kFirst);
  fs::rename(path(kFirst, "segment-000001"), path(kFirst, "segment-000001.part"));
  const auto report = sender().send(kFirst);

  EXPECT_EQ(report.damaged, Names{});
  EXPECT_EQ(subjects, (Names{"segment-000000.0-5", "segment-000001%2Epart.0-6", "manifest"}));
}

TEST_F(StreamSenderTest, OffersWhatIsLeftOfADamagedStreamAndNamesTheDamage) {
  writeStream(kFirst);
  write(kFirst, "segment-000000", "hallo");
  fs::remove(path(kFirst, "segment-000001"));
  const auto report = sender().send(kFirst);

  EXPECT_EQ(report.result, Result::forwarded);
  ASSERT_EQ(report.damaged.size(), 2U);
  EXPECT_TRUE(report.damaged[0].starts_with("segment-000000: its checksum is "));
  EXPECT_EQ(report.damaged[1], "segment-000001: it is missing");
  EXPECT_EQ(subjects, (Names{"segment-000000.0-5", "manifest"}));
}

TEST_F(StreamSenderTest, RefusesADamagedManifest) {
  writeStream(kFirst);
  std::string manifest = readFile(path(kFirst, "manifest"));
  manifest.replace(manifest.find("bytes=5"), 7, "bytes=6");
  write(kFirst, "manifest", manifest);
  const auto report = sender().send(kFirst);

  EXPECT_EQ(report.result, Result::unreadable);
  EXPECT_TRUE(report.reason.starts_with("the checksum of its lines is ")) << report.reason;
  EXPECT_EQ(subjects, Names{});
}

// Whoever can write a manifest must not get another file of the server sent.
TEST_F(StreamSenderTest, OffersNothingOutsideTheFolder) {
  writeFile(store.path() + "/secret", "hello");
  std::string hello = kHello;
  hello.replace(hello.find("segment-000000\n"), 15, "../secret\n");
  fs::create_directory(path(kFirst));
  write(kFirst, "manifest",
        withChecksum(headOf(kFirst) + hello + kNoOthers +
                     endingOf(kFirst, "records=1 bytes=5 segments=1")));
  fs::create_symlink(store.path() + "/secret", path(kFirst, "segment-000000"));
  sender().send(kFirst);
  EXPECT_EQ(subjects, Names{"manifest"});

  writeStream(kSecond);
  fs::remove(path(kSecond, "segment-000000"));
  fs::create_symlink(store.path() + "/secret", path(kSecond, "segment-000000"));
  EXPECT_THROW(sender().send(kSecond), std::runtime_error);
}

TEST_F(StreamSenderTest, NoticesThatTheStreamWasRemoved) {
  EXPECT_EQ(sender().send(kFirst).result, Result::gone);

  writeStream(kFirst);
  forward::StreamSender removing(
      store.path(), "host", [] { return 1000; },
      [this](const Chunk&) {
        fs::remove_all(path(kFirst));
        return true;
      });
  EXPECT_EQ(removing.send(kFirst).result, Result::gone);
}

TEST_F(StreamSenderTest, HasTheQueueThatTheListShows) {
  tool::StreamHead head;
  head.queue = "orders";
  EXPECT_EQ(forward::queueOf(head, kFirst), "orders");
  head.queue = "orvane-20261121T023201-4700_0123456789abcdef";
  head.producer = tool::Producer{};
  head.label = "app.log";
  EXPECT_EQ(forward::queueOf(head, kSecond), "orders");
}

}  // namespace
}  // namespace orvane::test::stream_sender
