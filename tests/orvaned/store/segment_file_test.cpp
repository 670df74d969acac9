// The file of a segment that is compressed, or is not because that would not make it smaller.

#include "store/segment_file.hpp"

#include <gtest/gtest.h>

#include <random>

#include "support/limits.hpp"
#include "support/manifest.hpp"
#include "support/process.hpp"
#include "support/temp_folder.hpp"
#include "support/throws.hpp"
#include "support/wire.hpp"

namespace orvane::test {
namespace {

using orvaned::SegmentFile;
using orvaned::Sync;

using Names = std::vector<std::string>;

class SegmentFileTest : public testing::Test {
 protected:
  static constexpr std::size_t kMiB = 1 << 20;

  SegmentFile makeFile() { return {&directory, "segment-000000", Sync::none, &compressor}; }

  static void append(SegmentFile& file, const std::string& data) { file.append(bytesOf(data)); }

  static std::string same(std::size_t size) { return std::string(size, 'x'); }

  // No compression makes it smaller.
  std::string random(std::size_t size) {
    std::string data(size, '\0');
    for (char& byte : data) {
      byte = static_cast<char>(generator());
    }
    return data;
  }

  // The data of the file, which has no end yet. Without one, zstdcat does not print the last block.
  std::string dataSoFar(const std::string& name = "segment-000000.zst.part") const {
    const std::string path = folder.path() + "/" + name;
    EXPECT_EQ(run({"zstdcat", path}).how, "exit 1");
    const Ended ended = run({"zstdcat"}, readFile(path) + std::string("\x01\0\0", 3));
    EXPECT_EQ(ended.how, "exit 0") << ended.err;
    return ended.out;
  }
  std::string data(const std::string& name) const {
    const Ended ended = run({"zstdcat", folder.path() + "/" + name});
    EXPECT_EQ(ended.how, "exit 0") << ended.err;
    return ended.out;
  }
  std::string file(const std::string& name) const { return readFile(folder.path() + "/" + name); }
  Names files() const { return namesIn(folder.path()); }

  TempFolder folder;
  orvaned::LocalDirectory directory{folder.path()};
  tool::Compressor compressor{3};
  std::mt19937 generator{1};  // NOLINT(cert-msc32-c,cert-msc51-cpp): the same bytes each time
};

TEST_F(SegmentFileTest, StaysPlainWithoutACompressor) {
  SegmentFile plain(&directory, "segment-000000", Sync::none, nullptr);
  append(plain, same(2 * kMiB));
  plain.end();
  plain.flush();
  EXPECT_EQ(files(), Names{"segment-000000.part"});
  EXPECT_EQ(plain.stored(), 0U);
  plain.finish();
  EXPECT_EQ(plain.name(), "segment-000000");
  EXPECT_TRUE(file("segment-000000") == same(2 * kMiB));
}

TEST_F(SegmentFileTest, OnlyCountsWithoutAFolder) {
  SegmentFile none(nullptr, "segment-000000", Sync::none, &compressor);
  append(none, same(2 * kMiB));
  none.end();
  none.settle();
  none.finish();
  EXPECT_EQ(none.bytes(), 2 * kMiB);
  EXPECT_EQ(none.records(), 1U);
  EXPECT_EQ(none.name(), "segment-000000");
}

TEST_F(SegmentFileTest, IsPlainUntilAMiBHasCome) {
  SegmentFile segment = makeFile();
  append(segment, same(kMiB - 1));
  segment.flush();
  EXPECT_EQ(files(), Names{"segment-000000.part"});
  EXPECT_TRUE(file("segment-000000.part") == same(kMiB - 1));
  EXPECT_EQ(segment.bytes(), kMiB - 1);
  EXPECT_EQ(segment.stored(), 0U);

  append(segment, "x");
  segment.flush();
  EXPECT_EQ(files(), Names{"segment-000000.zst.part"});
  EXPECT_TRUE(dataSoFar() == same(kMiB));
  EXPECT_EQ(segment.name(), "segment-000000.zst");
  EXPECT_EQ(segment.records(), 2U);
  EXPECT_EQ(segment.bytes(), kMiB);
  EXPECT_EQ(segment.checksum(), crc32Of(same(kMiB)));
  EXPECT_EQ(segment.stored(), file("segment-000000.zst.part").size());
  EXPECT_LT(segment.stored(), 1000U);
}

TEST_F(SegmentFileTest, IsCompressedAtItsEndIfItIsShort) {
  SegmentFile segment = makeFile();
  append(segment, same(500));
  append(segment, "");
  append(segment, same(500));
  segment.end();
  segment.settle();
  EXPECT_EQ(files(), Names{"segment-000000.zst.part"});
  EXPECT_EQ(segment.records(), 3U);
  EXPECT_EQ(segment.bytes(), 1000U);
  EXPECT_EQ(segment.checksum(), crc32Of(same(1000)));
  segment.finish();
  EXPECT_EQ(files(), Names{"segment-000000.zst"});
  EXPECT_EQ(data("segment-000000.zst"), same(1000));
  EXPECT_EQ(segment.stored(), file("segment-000000.zst").size());
}

TEST_F(SegmentFileTest, StaysPlainIfItsEndShowsThatItDoesNotShrink) {
  SegmentFile segment = makeFile();
  append(segment, "hello");
  segment.end();
  segment.settle();
  segment.finish();
  EXPECT_EQ(files(), Names{"segment-000000"});
  EXPECT_EQ(file("segment-000000"), "hello");
  EXPECT_EQ(segment.bytes(), 5U);
  EXPECT_EQ(segment.stored(), 0U);
}

TEST_F(SegmentFileTest, HasNoFileWithoutData) {
  SegmentFile segment = makeFile();
  append(segment, "");
  segment.end();
  segment.settle();
  segment.finish();
  EXPECT_EQ(files(), Names{});
  EXPECT_EQ(segment.records(), 1U);
  EXPECT_EQ(segment.bytes(), 0U);
}

TEST_F(SegmentFileTest, StaysPlainWhateverFollowsAMiBThatDoesNotShrink) {
  const std::string first = random(kMiB);
  SegmentFile segment = makeFile();
  append(segment, first + same(kMiB));
  segment.flush();
  append(segment, same(3 * kMiB));
  segment.end();
  segment.settle();
  EXPECT_EQ(files(), Names{"segment-000000.part"});
  EXPECT_TRUE(file("segment-000000.part") == first + same(4 * kMiB));
  EXPECT_EQ(segment.bytes(), 5 * kMiB);
}

TEST_F(SegmentFileTest, StaysCompressedWhateverFollowsAMiBThatShrinks) {
  const std::string more = random(2 * kMiB);
  SegmentFile segment = makeFile();
  append(segment, same(kMiB) + more);
  segment.flush();
  append(segment, more);
  segment.end();
  segment.settle();
  segment.finish();
  EXPECT_EQ(files(), Names{"segment-000000.zst"});
  EXPECT_TRUE(data("segment-000000.zst") == same(kMiB) + more + more);
  EXPECT_EQ(segment.checksum(), crc32Of(same(kMiB) + more + more));
}

TEST_F(SegmentFileTest, HasEverythingAfterEachFlush) {
  SegmentFile segment = makeFile();
  std::string expected = same(kMiB);
  append(segment, expected);
  for (int i = 0; i < 10; ++i) {
    const std::string record = "record " + std::to_string(i) + "\n";
    append(segment, record);
    expected += record;
    segment.flush();
    EXPECT_TRUE(dataSoFar() == expected) << i;
    EXPECT_EQ(segment.bytes(), expected.size());
    EXPECT_EQ(segment.stored(), file("segment-000000.zst.part").size());
    segment.flush();
    EXPECT_EQ(segment.stored(), file("segment-000000.zst.part").size());
  }
}

TEST_F(SegmentFileTest, CountsOnlyWhatIsInTheFile) {
  SegmentFile segment = makeFile();
  append(segment, same(kMiB));
  segment.flush();
  append(segment, "more");
  EXPECT_EQ(segment.bytes(), kMiB);
  EXPECT_EQ(segment.records(), 1U);
  EXPECT_EQ(segment.checksum(), crc32Of(same(kMiB)));
  segment.flush();
  EXPECT_EQ(segment.bytes(), kMiB + 4);
  EXPECT_EQ(segment.records(), 2U);
}

TEST_F(SegmentFileTest, LeavesTheCompressorToTheNextOne) {
  for (const char* name : {"segment-000000", "segment-000001"}) {
    SegmentFile segment(&directory, name, Sync::none, &compressor);
    append(segment, same(1000));
    segment.end();
    segment.settle();
    segment.finish();
  }
  EXPECT_EQ(files(), (Names{"segment-000000.zst", "segment-000001.zst"}));
  EXPECT_EQ(file("segment-000000.zst"), file("segment-000001.zst"));
}

TEST_F(SegmentFileTest, LosesNothingThatWasFlushedWhenTheDiskIsFull) {
  SegmentFile segment = makeFile();
  append(segment, same(kMiB) + "flushed");
  segment.flush();
  const std::uint64_t stored = segment.stored();
  const std::string more = random(3 * kMiB);
  append(segment, more);
  {
    FileSizeLimit full(2 * kMiB);
    EXPECT_TRUE(throwsErrno(
        1003, "File too large: cannot write " + folder.path() + "/segment-000000.zst.part",
        [&] { segment.flush(); }));
  }
  EXPECT_TRUE(dataSoFar() == same(kMiB) + "flushed");
  EXPECT_EQ(segment.bytes(), kMiB + 7);
  EXPECT_EQ(segment.stored(), stored);

  segment.end();
  segment.settle();
  EXPECT_TRUE(data("segment-000000.zst.part") == same(kMiB) + "flushed" + more);
  EXPECT_EQ(segment.bytes(), 4 * kMiB + 7);
}

TEST_F(SegmentFileTest, FailsWhenItsFileWasRemoved) {
  SegmentFile segment = makeFile();
  append(segment, same(kMiB));
  segment.flush();
  directory.remove("segment-000000.zst.part");
  append(segment, "more");
  EXPECT_TRUE(throwsErrno(
      1003, "No such file or directory: cannot write " + folder.path() + "/segment-000000.zst.part",
      [&] { segment.flush(); }));
}

}  // namespace
}  // namespace orvane::test
