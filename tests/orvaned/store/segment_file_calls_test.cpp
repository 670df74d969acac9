// How a compressed file takes the place of a plain one, call by call.

#include <gtest/gtest.h>

#include <cerrno>
#include <orvane/orvane.hpp>
#include <utility>

#include "orvaned/store/file_calls.hpp"
#include "store/segment_file.hpp"
#include "support/temp_folder.hpp"
#include "support/throws.hpp"
#include "support/wire.hpp"

namespace orvane::test {
namespace {

using orvaned::SegmentFile;
using orvaned::Sync;

using Calls = std::vector<std::string>;
using Names = std::vector<std::string>;

class SegmentFileCalls : public testing::Test {
 protected:
  static constexpr std::size_t kMiB = 1 << 20;
  static constexpr char kPlain[] = "segment-000000.part";
  static constexpr char kCompressed[] = "segment-000000.zst.part";

  // The calls since the last time. How many bytes compressed data has is not shown.
  static Calls calls() {
    Calls made = std::exchange(fileCalls().made, {});
    for (std::string& call : made) {
      const std::string write = std::string("write ") + kCompressed;
      call = call.starts_with(write) ? write : call;
    }
    return made;
  }

  SegmentFile makeFile(Sync sync) { return {&directory, "segment-000000", sync, &compressor}; }
  static void append(SegmentFile& file, const std::string& data) { file.append(bytesOf(data)); }
  static std::string same(std::size_t size) { return std::string(size, 'x'); }

  Names files() const { return namesIn(folder.path()); }

  // The next flush writes a compressed file.
  static void shrink(SegmentFile& segment) {
    append(segment, same(kMiB / 2));
    segment.flush();
    append(segment, same(kMiB / 2));
    calls();
  }

  TempFolder folder;
  RecordedDirectory directory{folder.path()};
  tool::Compressor compressor{3};
};

TEST_F(SegmentFileCalls, RemoveThePlainFileWhenTheCompressedOneHasEverything) {
  SegmentFile segment = makeFile(Sync::segment);
  shrink(segment);
  segment.flush();
  EXPECT_EQ(calls(),
            (Calls{std::string("append ") + kCompressed, std::string("write ") + kCompressed,
                   std::string("close ") + kPlain, std::string("remove ") + kPlain}));
  append(segment, "more");
  segment.flush();
  EXPECT_EQ(calls(), Calls{std::string("write ") + kCompressed});
}

TEST_F(SegmentFileCalls, BringTheCompressedFileOntoTheDiskBeforeThePlainOneGoes) {
  SegmentFile segment = makeFile(Sync::always);
  shrink(segment);
  segment.flush();
  EXPECT_EQ(calls(),
            (Calls{std::string("append ") + kCompressed, std::string("write ") + kCompressed,
                   std::string("fdatasync ") + kCompressed, "sync", std::string("close ") + kPlain,
                   std::string("remove ") + kPlain}));
  append(segment, "more");
  segment.flush();
  EXPECT_EQ(calls(),
            (Calls{std::string("write ") + kCompressed, std::string("fdatasync ") + kCompressed}));
}

TEST_F(SegmentFileCalls, MakeNoPlainFileIfTheEndComesBeforeTheFirstFlush) {
  SegmentFile segment = makeFile(Sync::segment);
  append(segment, same(1000));
  segment.end();
  segment.flush();
  EXPECT_EQ(calls(),
            (Calls{std::string("append ") + kCompressed, std::string("write ") + kCompressed}));
  segment.settle();
  segment.finish();
  EXPECT_EQ(calls(),
            (Calls{std::string("fdatasync ") + kCompressed, std::string("close ") + kCompressed,
                   std::string("rename ") + kCompressed + " segment-000000.zst", "sync"}));
}

class FailingFirstWrite : public SegmentFileCalls,
                          public testing::WithParamInterface<const char*> {};

TEST_P(FailingFirstWrite, LeavesThePlainFile) {
  SegmentFile segment = makeFile(Sync::always);
  shrink(segment);
  failNext(GetParam(), ENOSPC);
  EXPECT_THROW(segment.flush(), Ox_ErrnoException);
  EXPECT_EQ(files(), Names{kPlain});
  EXPECT_EQ(segment.name(), "segment-000000");
  EXPECT_EQ(segment.stored(), 0U);

  segment.end();
  segment.settle();
  EXPECT_EQ(files(), Names{kPlain});
  EXPECT_EQ(readFile(folder.path() + "/" + kPlain).size(), segment.bytes());
  EXPECT_GE(segment.bytes(), kMiB / 2);
}

INSTANTIATE_TEST_SUITE_P(Of, FailingFirstWrite,
                         testing::Values("append", "write", "fdatasync", "sync"),
                         [](const auto& test) { return std::string(test.param); });

TEST_F(SegmentFileCalls, TakeAFailedFlushBackAndWriteItLater) {
  SegmentFile segment = makeFile(Sync::segment);
  shrink(segment);
  segment.flush();
  const std::uint64_t stored = segment.stored();
  append(segment, "more");
  failNext("write", EIO);
  EXPECT_TRUE(throwsErrno(1003,
                          "Input/output error: cannot write " + folder.path() + "/" + kCompressed,
                          [&] { segment.flush(); }));
  EXPECT_EQ(segment.bytes(), kMiB);
  EXPECT_EQ(segment.stored(), stored);
  segment.end();
  segment.settle();
  EXPECT_EQ(segment.bytes(), kMiB + 4);
  EXPECT_EQ(segment.stored(), readFile(folder.path() + "/" + kCompressed).size());
}

TEST_F(SegmentFileCalls, CountWhatIsInTheFileButNotOnTheDisk) {
  SegmentFile segment = makeFile(Sync::always);
  shrink(segment);
  segment.flush();
  append(segment, "more");
  failNext("fdatasync", EIO);
  EXPECT_THROW(segment.flush(), Ox_ErrnoException);
  EXPECT_EQ(segment.bytes(), kMiB + 4);
  EXPECT_EQ(segment.stored(), readFile(folder.path() + "/" + kCompressed).size());
}

TEST_F(SegmentFileCalls, GoOnIfThePlainFileCannotBeRemoved) {
  SegmentFile segment = makeFile(Sync::segment);
  shrink(segment);
  failNext("remove", EIO);
  segment.flush();
  EXPECT_EQ(files(), (Names{kPlain, kCompressed}));
  EXPECT_EQ(segment.bytes(), kMiB);
  EXPECT_EQ(segment.name(), "segment-000000.zst");
}

}  // namespace
}  // namespace orvane::test
