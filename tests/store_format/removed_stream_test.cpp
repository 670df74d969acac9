#include "store_format/removed_stream.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <stdexcept>

#include "support/limits.hpp"
#include "support/temp_folder.hpp"

namespace orvane::test::removed_stream {
namespace {

namespace fs = std::filesystem;
using Names = std::vector<std::string>;

TEST(RemovedFolder, IsHiddenAndNamedAfterTheStream) {
  EXPECT_EQ(tool::removedFolderOf("orders-20261121T023224-4711_0"),
            ".orders-20261121T023224-4711_0.removed");
  EXPECT_TRUE(tool::isRemovedFolder(".orders-20261121T023224-4711_0.removed"));
}

TEST(RemovedFolder, IsNothingThatHasAnotherName) {
  for (const char* const name :
       {"", ".", ".removed", "..removed", ".orders.removed", "orders-20261121T023224-4711_0",
        "orders-20261121T023224-4711_0.removed", ".orders-20261121T023224-4711_0",
        ".orders-20261121T023224-4711_0.new", ".orders-20261121T023224-4711_0.removed2",
        ".-20261121T023224-4711_0.removed"}) {
    EXPECT_FALSE(tool::isRemovedFolder(name)) << name;
  }
}

TEST(RemovedFolder, IsRemovedWithEverythingInItButNoTargetOfALink) {
  const TempFolder folder;
  const TempFolder elsewhere;
  const std::string path = folder.path() + "/x";
  fs::create_directories(path + "/notes/old");
  writeFile(path + "/notes/old/one", "one");
  writeFile(path + "/segment-000000", "hello");
  writeFile(elsewhere.path() + "/kept", "kept");
  fs::create_directory_symlink(elsewhere.path(), path + "/link");

  tool::removeFolder(path);

  EXPECT_EQ(namesIn(folder.path()), Names{});
  EXPECT_EQ(namesIn(elsewhere.path()), Names{"kept"});
  tool::removeFolder(path);  // another process may have been faster
}

TEST(RemovedFolder, ThatCannotBeRemovedIsReported) {
  const TempFolder folder;
  const std::string path = folder.path() + "/x";
  fs::create_directory(path);
  writeFile(path + "/segment-000000", "hello");
  chmod(folder.path().c_str(), 0755);
  chmod(path.c_str(), 0555);
  {
    const WithoutPrivileges user;
    try {
      tool::removeFolder(path);
      ADD_FAILURE() << "it was removed";
    } catch (const std::runtime_error& e) {
      EXPECT_EQ(std::string(e.what()), "Permission denied: cannot remove " + path);
    }
  }
  chmod(path.c_str(), 0755);
  EXPECT_EQ(namesIn(path), Names{"segment-000000"});
}

}  // namespace
}  // namespace orvane::test::removed_stream
