// In which order an ended segment gets onto the disk, into the manifest and to its final name.

#include "store/segment_finish.hpp"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>

#include "orvaned/store/file_calls.hpp"
#include "support/temp_folder.hpp"

namespace orvane::test {
namespace {

using orvaned::FinishResult;

using Calls = std::vector<std::string>;

const Calls kAll = {"read segment-000000.part",
                    "fdatasync segment-000000.part",
                    "close segment-000000.part",
                    "read manifest.part",
                    "close manifest.part",
                    "append manifest.part",
                    "write manifest.part 5",
                    "fdatasync manifest.part",
                    "rename segment-000000.part segment-000000",
                    "sync",
                    "close manifest.part"};

class SegmentFinish : public testing::Test {
 protected:
  SegmentFinish() {
    writeFile(folder.path() + "/manifest.part", "first\n");
    writeFile(folder.path() + "/segment-000000.part", "hello");
  }

  FinishResult finish() {
    RecordedDirectory directory(folder.path());
    return finishSegment(directory, "segment-000000", "line");
  }
  std::string file(const std::string& name) const { return readFile(folder.path() + "/" + name); }

  TempFolder folder;
};

TEST_F(SegmentFinish, SyncsThenListsThenRenames) {
  const FinishResult result = finish();
  EXPECT_TRUE(result.listed);
  EXPECT_EQ(result.error, "");
  EXPECT_EQ(fileCalls().made, kAll);
  EXPECT_EQ(namesIn(folder.path()), (Calls{"manifest.part", "segment-000000"}));
  EXPECT_EQ(file("manifest.part"), "first\nline\n");
  EXPECT_EQ(file("segment-000000"), "hello");
}

TEST_F(SegmentFinish, ListsNothingThatIsNotSynced) {
  failNext("fdatasync", EIO);
  const FinishResult result = finish();
  EXPECT_FALSE(result.listed);
  EXPECT_EQ(result.error,
            "Input/output error: cannot sync " + folder.path() + "/segment-000000.part");
  EXPECT_EQ(namesIn(folder.path()), (Calls{"manifest.part", "segment-000000.part"}));
  EXPECT_EQ(file("manifest.part"), "first\n");
}

TEST_F(SegmentFinish, TakesHalfALineBack) {
  fileCalls().nextWrite = 2;
  fileCalls().duringWrite = [] { fileCalls().duringWrite = [] { failNext("write", ENOSPC); }; };
  const FinishResult result = finish();
  EXPECT_FALSE(result.listed);
  EXPECT_EQ(result.error,
            "No space left on device: cannot write " + folder.path() + "/manifest.part");
  EXPECT_EQ(namesIn(folder.path()), (Calls{"manifest.part", "segment-000000.part"}));
  EXPECT_EQ(file("manifest.part"), "first\n");
}

TEST_F(SegmentFinish, RenamesNothingWhoseLineIsNotSynced) {
  fileCalls().duringWrite = [] { failNext("fdatasync", EIO); };
  const FinishResult result = finish();
  EXPECT_TRUE(result.listed);
  EXPECT_EQ(result.error, "Input/output error: cannot sync " + folder.path() + "/manifest.part");
  EXPECT_EQ(namesIn(folder.path()), (Calls{"manifest.part", "segment-000000.part"}));
}

TEST_F(SegmentFinish, ReportsANameThatIsNotOnTheDisk) {
  failNext("sync", EIO);
  const FinishResult result = finish();
  EXPECT_TRUE(result.listed);
  EXPECT_EQ(result.error, "Input/output error: cannot sync " + folder.path());
}

TEST_F(SegmentFinish, MakesNoFileThatWasRemoved) {
  for (const char* name : {"manifest.part", "segment-000000.part"}) {
    unlink((folder.path() + "/" + name).c_str());
    const FinishResult result = finish();
    EXPECT_FALSE(result.listed);
    EXPECT_EQ(result.error, "No such file or directory: cannot read " + folder.path() + "/" + name);
  }
  EXPECT_EQ(namesIn(folder.path()), Calls{});
}

}  // namespace
}  // namespace orvane::test
