// Whole streams of a real writer, and what is stored of them.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "support/served.hpp"

namespace {

using orvane::ShmWriter;
using orvane::test::Answer;
using orvane::test::bytesOf;
using orvane::test::hex;
using orvane::test::Line;
using orvane::test::Served;

using Answers = std::vector<Answer>;
using Names = std::vector<std::string>;

class StreamTest : public testing::Test {
 protected:
  void write(const std::string& text) {
    writer.writeSegment(reinterpret_cast<const unsigned char*>(text.data()), text.size());
  }
  void writeOwn(std::uint32_t type, const std::string& text) {
    orvane::pvk_shm_message_t header;
    header.type = type;
    header.len = static_cast<std::uint32_t>(text.size());
    writer.write_data(&header, reinterpret_cast<const unsigned char*>(text.data()), 5, false);
  }

  Served served;
  ShmWriter writer{"stream", served.queue(), 5, 5, false};
};

TEST_F(StreamTest, AClosedStreamIsStoredWithItsManifest) {
  writer.open();
  writer.setSegmentAlg(kOrvaneSegUnbounded, 7, 8, 9);
  write("hello ");
  write("world");
  writer.endSegment();
  writer.setSegmentAlg(kOrvaneSegBounded, 0, 0, 0);
  write("second");
  writer.endSegment();
  writer.close();

  EXPECT_EQ(
      served.serve(),
      (Answers{{0, ""}, {0, "receipt stream=RUN_0 records=3 bytes=17 segments=2 end=closed"}}));
  EXPECT_EQ(served.stored(), Names{"QUEUE-RUN_0"});
  EXPECT_EQ(served.filesOf(0), (Names{"manifest", "segment-000000", "segment-000001"}));
  EXPECT_EQ(served.file(0, "segment-000000"), "hello world");
  EXPECT_EQ(served.file(0, "segment-000001"), "second");
  EXPECT_EQ(served.manifest(0),
            "format=2\n"
            "queue=QUEUE\n"
            "stream=RUN_0\n"
            "begun=TIME\n"
            "segment number=0 records=2 bytes=11 algorithm=1 parameters=7,8,9 "
            "crc32=0d4a1185 file=segment-000000\n"
            "segment number=1 records=1 bytes=6 algorithm=0 parameters=0,0,0 "
            "crc32=b61f1169 file=segment-000001\n"
            "other-records=0 bytes=0 crc32=00000000\n"
            "skipped=0\n"
            "receipt stream=RUN_0 records=3 bytes=17 segments=2 end=closed\n"
            "records=3\n"
            "bytes=17\n"
            "end=closed\n"
            "reason=\n");
}

TEST_F(StreamTest, AnEmptyStreamIsAFolderWithAManifest) {
  writer.open();
  writer.close();
  EXPECT_EQ(served.serve().back(),
            (Answer{0, "receipt stream=RUN_0 records=0 bytes=0 segments=0 end=closed"}));
  EXPECT_EQ(served.filesOf(0), Names{"manifest"});
}

TEST_F(StreamTest, SegmentsWithoutDataAreListedWithoutAFile) {
  writer.open();
  writer.setSegmentAlg(kOrvaneSegBounded, 1, 2, 3);
  writer.endSegment();
  write("");
  write("");
  writer.endSegment();
  write("data");
  write("");
  writer.endSegment();
  writer.close();
  EXPECT_EQ(served.serve().back(),
            (Answer{0, "receipt stream=RUN_0 records=4 bytes=4 segments=1 end=closed"}));
  EXPECT_EQ(served.filesOf(0), (Names{"manifest", "segment-000000"}));
  EXPECT_EQ(
      served.manifest(0),
      "format=2\n"
      "queue=QUEUE\n"
      "stream=RUN_0\n"
      "begun=TIME\n"
      "segment number=0 records=0 bytes=0 algorithm=0 parameters=1,2,3 crc32=00000000 file=-\n"
      "segment number=0 records=2 bytes=0 algorithm=0 parameters=1,2,3 crc32=00000000 file=-\n"
      "segment number=0 records=2 bytes=4 algorithm=0 parameters=1,2,3 "
      "crc32=adf3f363 file=segment-000000\n"
      "other-records=0 bytes=0 crc32=00000000\n"
      "skipped=0\n"
      "receipt stream=RUN_0 records=4 bytes=4 segments=1 end=closed\n"
      "records=4\n"
      "bytes=4\n"
      "end=closed\n"
      "reason=\n");
}

TEST_F(StreamTest, ClosingEndsTheLastSegment) {
  writer.open();
  write("not ended");
  writer.close();
  served.serve();
  EXPECT_EQ(served.filesOf(0), (Names{"manifest", "segment-000000"}));
  EXPECT_EQ(served.file(0, "segment-000000"), "not ended");
}

TEST_F(StreamTest, ASegmentHasItsFinalNameOnlyOnceItHasEnded) {
  writer.open();
  write("one");
  writer.endSegment();
  write("two");
  writer.flush_shm_buffer(5);
  served.serve();
  EXPECT_EQ(served.filesOf(0), (Names{"manifest.part", "segment-000000", "segment-000001.part"}));
  EXPECT_EQ(served.file(0, "segment-000000"), "one");
  EXPECT_EQ(served.file(0, "segment-000001.part"), "two");
}

TEST_F(StreamTest, RecordsOfOtherTypesAreKeptInWireForm) {
  writer.open();
  write("data");
  writeOwn(0x01020304, "hi");
  writeOwn(5, "");
  writer.endSegment();
  writer.close();
  EXPECT_EQ(served.serve().back(),
            (Answer{0, "receipt stream=RUN_0 records=3 bytes=6 segments=1 end=closed"}));
  EXPECT_EQ(served.filesOf(0), (Names{"manifest", "other-records", "segment-000000"}));
  EXPECT_EQ(bytesOf(served.file(0, "other-records")),
            hex("01020304 00000002 0000000000000000 0000000000000000 00000001 00000000"
                "00000000 00000000 00000000 aabbccdd 6869"
                "00000005 00000000 0000000000000000 0000000000000000 00000001 00000000"
                "00000000 00000000 00000000 aabbccdd"));
  EXPECT_EQ(served.manifest(0),
            "format=2\n"
            "queue=QUEUE\n"
            "stream=RUN_0\n"
            "begun=TIME\n"
            "segment number=0 records=1 bytes=4 algorithm=0 parameters=0,0,0 "
            "crc32=adf3f363 file=segment-000000\n"
            "other-records=2 bytes=2 crc32=9860961d\n"
            "skipped=0\n"
            "receipt stream=RUN_0 records=3 bytes=6 segments=1 end=closed\n"
            "records=3\n"
            "bytes=6\n"
            "end=closed\n"
            "reason=\n");
}

TEST_F(StreamTest, SkippedSequenceNumbersAreInTheManifest) {
  writer.open();
  const std::string tooLarge(2000, 'x');
  EXPECT_ANY_THROW(write(tooLarge));  // does not fit into a batch; its number is used up
  write("fits");
  writer.close();
  served.serve();
  EXPECT_NE(served.manifest(0).find("\nskipped=1\n"), std::string::npos);
}

TEST_F(StreamTest, StreamsOnOneQueueHaveTheirOwnFolders) {
  for (const char* text : {"first", "second", "third"}) {
    writer.open();
    write(text);
    writer.close();
    served.serve();
  }
  EXPECT_EQ(served.stored(), (Names{"QUEUE-RUN_0", "QUEUE-RUN_1", "QUEUE-RUN_2"}));
  EXPECT_EQ(served.file(2, "segment-000000"), "third");
}

TEST_F(StreamTest, AStreamsFolderIsForItsOwnerOnly) {
  writer.open();
  served.serve();
  struct stat status = {};
  ASSERT_EQ(stat(served.pathOf(0).c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0700U);
}

TEST_F(StreamTest, TheWriterIsToldNothingOnSuccess) {
  writer.open();
  served.worker().runOnce();
  for (int i = 0; i < 20; ++i) {
    write("data");
    writer.flush_shm_buffer(5);
    served.worker().runOnce();
  }
  writer.close();
  EXPECT_EQ(served.serve().size(), 1U);  // of 22 answers the writer has taken 21
}

TEST_F(StreamTest, ItsBeginAndItsReceiptAreLogged) {
  writer.open();
  writer.close();
  served.serve();
  const std::vector<Line> expected = {
      {ox::Kind::info, 0, "worker::open: queue QUEUE: stream RUN_0 begins"},
      {ox::Kind::info, 0,
       "worker::concludeStream: queue QUEUE: receipt stream=RUN_0 records=0 bytes=0 segments=0 "
       "end=closed"}};
  EXPECT_EQ(served.log(), expected);
}

TEST(LargeStream, ArrivesByteForByte) {
  Served served(524488);
  ShmWriter writer("stream", served.queue(), 5, 5, false);
  std::string data(131072 * 9 + 77, '\0');
  for (std::size_t i = 0; i < data.size(); ++i) {
    data[i] = static_cast<char>(i * 31 + i / 251);
  }
  const auto* bytes = reinterpret_cast<const unsigned char*>(data.data());
  writer.open();
  for (std::size_t at = 0; at < data.size(); at += 131072) {
    writer.writeSegment(bytes + at, std::min<std::size_t>(131072, data.size() - at));
    served.worker().runOnce();
  }
  for (std::size_t at = 0; at < data.size(); at += 64) {
    writer.writeSegment(bytes + at, std::min<std::size_t>(64, data.size() - at));
    served.worker().runOnce();
  }
  writer.close();
  served.serve();
  EXPECT_TRUE(served.file(0, "segment-000000") == data + data);
}

}  // namespace
