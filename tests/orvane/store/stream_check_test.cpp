// What a check of a stream tells when the stream is changed meanwhile. All else is in
// commands/verify_test.cpp.

#include "store/stream_check.hpp"

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <vector>

#include "orvane/store/stored_streams.hpp"
#include "store/store_folder.hpp"

namespace orvane::test::stream_check {
namespace {

using tool::FileFault;
using tool::StreamCheck;
using tool::StreamReport;

class StreamCheckTest : public StoredStreams {
 protected:
  StreamCheckTest() { writeStream(kFirst); }

  // Compares all files.
  static StreamReport finish(StreamCheck& check) {
    std::vector<unsigned char> block(1024);
    for (std::size_t file = 0; file < check.files(); ++file) {
      check.keep(file, check.compare(file, block, [](std::size_t) {}));
    }
    return check.report();
  }
};

TEST_F(StreamCheckTest, FindsNothingMissingOfAStreamThatWasRemovedMeanwhile) {
  StreamCheck before(path(kFirst));
  std::filesystem::rename(path(kFirst), path(".hidden"));
  EXPECT_TRUE(finish(before).isRemoved);
  StreamCheck after(path(kFirst));
  EXPECT_TRUE(finish(after).isRemoved);
}

TEST_F(StreamCheckTest, FindsAFileThatIsRemovedMeanwhile) {
  StreamCheck check(path(kFirst));
  std::filesystem::remove(path(kFirst, "segment-000001"));
  const StreamReport report = finish(check);
  EXPECT_FALSE(report.isRemoved);
  EXPECT_EQ(report.faults,
            (std::vector<FileFault>{{"segment-000001", "No such file or directory: cannot read " +
                                                           path(kFirst, "segment-000001")}}));
}

TEST_F(StreamCheckTest, ReadsInBlocksAndNotWhatHasAnotherSize) {
  write(kFirst, "segment-000001", "world");
  StreamCheck check(path(kFirst));
  std::vector<unsigned char> block(2);
  std::vector<std::size_t> reads;
  const auto note = [&](std::size_t bytes) { reads.push_back(bytes); };
  EXPECT_EQ(check.compare(0, block, note), "");
  EXPECT_EQ(check.compare(1, block, note), "it has 5 bytes instead of 6");
  EXPECT_EQ(reads, (std::vector<std::size_t>{2, 2, 1}));
}

TEST_F(StreamCheckTest, TellsWhatTheManifestTells) {
  StreamCheck check(path(kFirst) + "/");
  const StreamReport report = finish(check);
  EXPECT_EQ(report.folder, path(kFirst) + "/");
  EXPECT_EQ(report.id, kFirst);
  EXPECT_FALSE(report.isOpen);
  EXPECT_EQ(report.format, 2);
  EXPECT_EQ(report.files, 2U);
  EXPECT_EQ(report.faults, std::vector<FileFault>{});
  ASSERT_TRUE(report.receipt);
  EXPECT_EQ(*report.receipt, (Receipt{"20261121T023224-4711_0", 2, 11, 2, StreamEnd::closed}));
}

TEST(IdOfAFolder, IsItsNameWhateverTheFormOfItsPath) {
  EXPECT_EQ(tool::idOf("/store/id"), "id");
  EXPECT_EQ(tool::idOf("/store/id/"), "id");
  EXPECT_EQ(tool::idOf("/store/other/../id/."), "id");
  EXPECT_EQ(tool::idOf("id"), "id");
  EXPECT_EQ(tool::idOf("."), std::filesystem::current_path().filename().string());
}

}  // namespace
}  // namespace orvane::test::stream_check
