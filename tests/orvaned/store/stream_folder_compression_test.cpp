// What a stream's manifest says of compressed segments, and when they are written.

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>

#include "orvaned/store/background_finish_fixture.hpp"
#include "support/process.hpp"

namespace orvane::test {
namespace {

class CompressedStream : public StreamFolderInBackground {
 protected:
  static constexpr std::size_t kMiB = 1 << 20;

  static std::string same(std::size_t size) { return std::string(size, 'x'); }

  // The line of a segment of so many bytes 'x', which came in so many records.
  std::string line(std::uint64_t number, std::uint64_t records, std::size_t bytes,
                   const std::string& name) const {
    char crc32[9] = {};
    std::snprintf(crc32, sizeof(crc32), "%08x", crc32Of(same(bytes)));
    return "segment number=" + std::to_string(number) + " records=" + std::to_string(records) +
           " bytes=" + std::to_string(bytes) + " algorithm=0 parameters=0,0,0 crc32=" + crc32 +
           " stored=" + std::to_string(std::filesystem::file_size(path + "/" + name)) +
           " file=" + name + "\n";
  }
  std::string data(const std::string& name) const {
    const Ended ended = run({"zstdcat", path + "/" + name});
    EXPECT_EQ(ended.how, "exit 0") << ended.err;
    return ended.out;
  }
};

TEST_F(CompressedStream, ListsBothSizesOfASegment) {
  StreamFolder stream = makeStream(Sync::segment, 3);
  storeData(stream, 0, same(1000));
  endSegment(stream, 0);
  storeData(stream, 1, "hello");
  stream.end(StreamEnd::closed, "", 0);
  EXPECT_EQ(files(), (Names{"manifest", "segment-000000.zst", "segment-000001"}));
  EXPECT_EQ(data("segment-000000.zst"), same(1000));
  EXPECT_EQ(manifest(),
            plainHead() + line(0, 1, 1000, "segment-000000.zst") +
                "segment number=1 records=1 bytes=5 algorithm=0 parameters=0,0,0 crc32=3610a686 "
                "file=segment-000001\n"
                "other-records=0 bytes=0 crc32=00000000\nskipped=0\n" +
                receipt(" records=2 bytes=1005 segments=2 end=closed\n"
                        "records=2\nbytes=1005\nend=closed\nreason=\n"));
}

TEST_F(CompressedStream, EndsTheFrameOfASegmentThatIsCutOff) {
  for (const StreamEnd how : {StreamEnd::cutOff, StreamEnd::stopped, StreamEnd::broken}) {
    StreamFolder stream = makeStream(Sync::segment, 3);
    storeData(stream, 0, same(kMiB));
    stream.flush();
    stream.end(how, "", 0);
    EXPECT_EQ(files(), (Names{"manifest", "segment-000000.zst.part"})) << textOf(how);
    EXPECT_TRUE(data("segment-000000.zst.part") == same(kMiB)) << textOf(how);
    EXPECT_TRUE(manifest().starts_with(plainHead() + line(0, 1, kMiB, "segment-000000.zst.part")))
        << manifest();
  }
}

TEST_F(CompressedStream, TakesThePlainFilesPlaceWhileTheSegmentBeforeIsSynced) {
  const std::string first = "segment-000000.zst.part";
  fileCalls().duringSync = [&](const std::string& file) {
    if (file.ends_with(first)) {
      gate.pass();
    }
    return 0;
  };
  StreamFolder stream = makeStream(Sync::segment, 3);
  storeData(stream, 0, same(1000));
  endSegment(stream, 0);
  gate.awaitArrival();
  storeData(stream, 1, same(kMiB / 2));
  stream.flush();
  EXPECT_EQ(files(), (Names{"manifest.part", first, "segment-000001.part"}));
  storeData(stream, 1, same(kMiB / 2));
  stream.flush();
  EXPECT_EQ(files(), (Names{"manifest.part", first, "segment-000001.zst.part"}));
  EXPECT_EQ(file("manifest.part"), head());
  gate.open();
  stream.end(StreamEnd::closed, "", 0);
  EXPECT_EQ(files(), (Names{"manifest", "segment-000000.zst", "segment-000001.zst"}));
  EXPECT_TRUE(manifest().starts_with(plainHead() + line(0, 1, 1000, "segment-000000.zst") +
                                     line(1, 2, kMiB, "segment-000001.zst")))
      << manifest();
}

}  // namespace
}  // namespace orvane::test
