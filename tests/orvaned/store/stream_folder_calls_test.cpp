// In which order a stream's folder gets its files, and what its numbers hold.

#include <gtest/gtest.h>

#include <cerrno>
#include <memory>
#include <utility>

#include "orvaned/store/file_calls.hpp"
#include "store/stream_folder.hpp"
#include "support/manifest.hpp"
#include "support/temp_folder.hpp"
#include "support/throws.hpp"
#include "support/wire.hpp"

namespace orvane::test {
namespace {

using orvaned::StreamFolder;
using orvaned::Sync;

using Calls = std::vector<std::string>;

// The manifest's first lines have 28 bytes.
class StreamFolderCalls : public testing::Test {
 protected:
  static Calls calls() { return std::exchange(fileCalls().made, {}); }

  StreamFolder makeStream(Sync sync) const {
    return {
        std::make_unique<RecordedDirectory>(folder.path()), {.queue = "q", .stream = "1_0"}, sync};
  }

  static void store(StreamFolder& stream, std::uint64_t segment, const std::string& text) {
    const Bytes data = bytesOf(text);
    stream.storeSegmentData({headerOf(1, segment, data), data.data()});
  }
  static void storeOther(StreamFolder& stream, const std::string& text) {
    const Bytes data = bytesOf(text);
    stream.storeOther({headerOf(9, 0, data), data.data()});
  }
  static void endSegment(StreamFolder& stream, std::uint64_t segment) {
    stream.endSegment(headerOf(2, segment, {}));
  }

  std::string manifest() const { return plainManifest(readFile(folder.path() + "/manifest")); }

  TempFolder folder;

 private:
  static pvk_shm_message_t headerOf(std::uint32_t type, std::uint64_t segment, const Bytes& data) {
    pvk_shm_message_t header;
    header.type = type;
    header.segmentNo = segment;
    header.len = static_cast<std::uint32_t>(data.size());
    return header;
  }
};

TEST_F(StreamFolderCalls, ListsAWholeSegmentBeforeItGetsItsFinalName) {
  StreamFolder stream = makeStream(Sync::segment);
  store(stream, 0, "hello");
  EXPECT_EQ(calls(), Calls{});
  endSegment(stream, 0);
  EXPECT_EQ(calls(), (Calls{"append segment-000000.part", "write segment-000000.part 5",
                            "fdatasync segment-000000.part", "append manifest.part",
                            "write manifest.part 127", "fdatasync manifest.part",
                            "close segment-000000.part",
                            "rename segment-000000.part segment-000000", "sync"}));
}

TEST_F(StreamFolderCalls, FlushesTheRecordsBeforeTheManifest) {
  StreamFolder stream = makeStream(Sync::none);
  store(stream, 0, "hello");
  storeOther(stream, "other");
  stream.flush();
  EXPECT_EQ(calls(), (Calls{"append segment-000000.part", "write segment-000000.part 5",
                            "append other-records", "write other-records 53",
                            "append manifest.part", "write manifest.part 28"}));
}

TEST_F(StreamFolderCalls, EndsAClosedStreamInThisOrder) {
  StreamFolder stream = makeStream(Sync::segment);
  store(stream, 0, "hello");
  storeOther(stream, "other");
  stream.end(StreamEnd::closed, "", 0);
  EXPECT_EQ(calls(),
            (Calls{"append segment-000000.part", "write segment-000000.part 5",
                   "fdatasync segment-000000.part", "append other-records",
                   "write other-records 53", "fdatasync other-records", "append manifest.part",
                   "write manifest.part 28", "write manifest.part 99", "fdatasync manifest.part",
                   "close segment-000000.part", "rename segment-000000.part segment-000000", "sync",
                   "write manifest.part 193", "fdatasync manifest.part", "close manifest.part",
                   "rename manifest.part manifest", "sync"}));
}

TEST_F(StreamFolderCalls, EndsACutOffStreamInThisOrder) {
  StreamFolder stream = makeStream(Sync::segment);
  store(stream, 0, "hello");
  stream.end(StreamEnd::cutOff, "x", 0);
  EXPECT_EQ(calls(), (Calls{"append segment-000000.part", "write segment-000000.part 5",
                            "fdatasync segment-000000.part", "append manifest.part",
                            "write manifest.part 28", "close segment-000000.part",
                            "write manifest.part 298", "fdatasync manifest.part",
                            "close manifest.part", "rename manifest.part manifest", "sync"}));
}

TEST_F(StreamFolderCalls, ContinuesNoManifestThatCouldNotBeWritten) {
  StreamFolder stream = makeStream(Sync::segment);
  failNext("fdatasync", EIO);
  EXPECT_TRUE(throwsErrno(1003,
                          "Input/output error: cannot sync " + folder.path() + "/manifest.part",
                          [&] { stream.end(StreamEnd::closed, "", 0); }));
  calls();
  stream.end(StreamEnd::broken, "the disk failed", 0);
  EXPECT_EQ(calls(), Calls{});
  EXPECT_EQ(namesIn(folder.path()), std::vector<std::string>{"manifest.part"});
}

TEST_F(StreamFolderCalls, EndsAStreamThatCannotBeSettledOnlyAsBroken) {
  for (const StreamEnd how : {StreamEnd::closed, StreamEnd::stopped, StreamEnd::cutOff}) {
    StreamFolder stream = makeStream(Sync::segment);
    storeOther(stream, "other");
    failNext("fdatasync", EIO);
    EXPECT_TRUE(throwsErrno(1003,
                            "Input/output error: cannot sync " + folder.path() + "/other-records",
                            [&] { stream.end(how, "", 0); }));
    EXPECT_EQ(namesIn(folder.path()), std::vector<std::string>{"other-records"}) << textOf(how);
  }
  StreamFolder stream = makeStream(Sync::segment);
  storeOther(stream, "other");
  failNext("fdatasync", EIO);
  stream.end(StreamEnd::broken, "the disk failed", 0);
  EXPECT_EQ(namesIn(folder.path()), (std::vector<std::string>{"manifest", "other-records"}));
}

TEST_F(StreamFolderCalls, WritesNumbersOf64Bits) {
  StreamFolder stream = makeStream(Sync::none);
  stream.end(StreamEnd::closed, "", 0x100000005);
  EXPECT_EQ(manifest(),
            "format=2\nqueue=q\nstream=1_0\nother-records=0 bytes=0 crc32=00000000\n"
            "skipped=4294967301\nreceipt stream=1_0 records=0 bytes=0 segments=0 end=closed\n"
            "records=0\nbytes=0\nend=closed\nreason=\n");
}

TEST_F(StreamFolderCalls, ListsASegmentOfOneByteWithItsFile) {
  StreamFolder stream = makeStream(Sync::none);
  store(stream, 0, "x");
  stream.end(StreamEnd::closed, "", 0);
  EXPECT_EQ(manifest().substr(0, 130),
            "format=2\nqueue=q\nstream=1_0\nsegment number=0 records=1 bytes=1 algorithm=0 "
            "parameters=0,0,0 crc32=8cdc1683 file=segment-000000\n"
            "oth");
}

TEST_F(StreamFolderCalls, ContinuesAManifestOfMoreThan4GiB) {
  RecordedDirectory directory(folder.path());
  orvaned::ManifestFile large(&directory, Sync::none);
  large.resume({.bytes = 0x100000005});
  EXPECT_EQ(calls(), (Calls{"append manifest.part", "truncate manifest.part 4294967301"}));
}

TEST(SegmentCount, AddsNumbersOf64Bits) {
  Receipt receipt;
  receipt.records = 0xFFFFFFFF;
  receipt.bytes = 0xFFFFFFFF;
  receipt.segments = 0xFFFFFFFF;
  orvaned::SegmentSummary segment;
  segment.records = 2;
  segment.bytes = 1;
  orvaned::count(receipt, segment);
  EXPECT_EQ(receipt.records, 0x100000001U);
  EXPECT_EQ(receipt.bytes, 0x100000000U);
  EXPECT_EQ(receipt.segments, 0x100000000U);
  segment.bytes = 0;
  orvaned::count(receipt, segment);
  EXPECT_EQ(receipt.segments, 0x100000000U);
}

}  // namespace
}  // namespace orvane::test
