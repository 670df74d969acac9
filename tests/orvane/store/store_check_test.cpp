#include "store/store_check.hpp"

#include <gtest/gtest.h>

#include <filesystem>
#include <vector>

#include "orvane/store/stored_streams.hpp"

namespace orvane::test::store_check {
namespace {

using tool::StoreCheck;

class StoreCheckTest : public StoredStreams {};

TEST_F(StoreCheckTest, OfNothingIsDoneAtOnce) {
  StoreCheck check({});
  EXPECT_TRUE(check.isDone());
  EXPECT_EQ(check.takeBytes(), 0U);
}

TEST_F(StoreCheckTest, ReportsEachStreamOnceInTheOrderOfTheFolders) {
  std::vector<std::string> folders;
  for (int i = 30; i > 0; --i) {
    const std::string id = "orders-20261121T023224-4711_" + std::to_string(i);
    writeStream(id);
    folders.push_back(path(id));
  }
  folders.push_back(path("none"));
  StoreCheck check(folders);
  std::vector<std::string> reported;
  while (!check.isDone()) {
    for (const auto& report : check.next()) {
      reported.push_back(report.folder);
      EXPECT_EQ(report.isRemoved, report.folder == path("none"));
      EXPECT_EQ(report.files, report.isRemoved ? 0U : 2U);
    }
  }
  EXPECT_EQ(reported, folders);
  EXPECT_EQ(check.takeBytes(), 330U);
  EXPECT_EQ(check.takeBytes(), 0U);
}

// A file that takes longer to read than any test may take.
TEST_F(StoreCheckTest, ThatIsLeftEndsBeforeItHasReadEverything) {
  write(kFirst, "segment-000000", "");
  std::filesystem::resize_file(path(kFirst, "segment-000000"), std::uintmax_t{1} << 40);
  write(kFirst, "manifest",
        withChecksum(headOf(kFirst) +
                     "segment number=0 records=1 bytes=1099511627776 algorithm=0 "
                     "parameters=0,0,0 crc32=00000000 file=segment-000000\n" +
                     kNoOthers + endingOf(kFirst, "records=1 bytes=1099511627776 segments=1")));
  StoreCheck check({path(kFirst)});
  std::uint64_t bytes = 0;
  while (bytes == 0) {
    EXPECT_TRUE(check.next().empty());
    bytes = check.takeBytes();
  }
  EXPECT_FALSE(check.isDone());
}

}  // namespace
}  // namespace orvane::test::store_check
