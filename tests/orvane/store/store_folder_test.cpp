#include "store/store_folder.hpp"

#include <gtest/gtest.h>

#include <filesystem>

#include "exit.hpp"
#include "support/temp_folder.hpp"

namespace orvane::test {
namespace {

// What findings of the only store fail with.
std::string failureOf(const std::string& parent) {
  try {
    return "found " + tool::onlyStoreIn(parent);
  } catch (const tool::Failure& failure) {
    EXPECT_EQ(failure.code, tool::kUsage);
    return failure.what();
  }
}

TEST(OnlyStore, IsTheOnlyFolder) {
  const TempFolder parent;
  const std::string& path = parent.path();
  writeFile(path + "/file", "");
  EXPECT_EQ(failureOf(path),
            "no store is named, and none is in " + path + ": name one, or set ORVANE_STORE");

  std::filesystem::create_directory(path + "/orders");
  EXPECT_EQ(tool::onlyStoreIn(path), path + "/orders");

  std::filesystem::create_directory(path + "/backups");
  EXPECT_EQ(failureOf(path), "no store is named, and several are in " + path +
                                 ": name one, or set ORVANE_STORE: " + path + "/backups, " + path +
                                 "/orders");
}

TEST(OnlyStore, MayBeALink) {
  const TempFolder parent;
  const TempFolder elsewhere;
  std::filesystem::create_directory_symlink(elsewhere.path(), parent.path() + "/orders");
  std::filesystem::create_symlink(parent.path() + "/none", parent.path() + "/broken");
  EXPECT_EQ(tool::onlyStoreIn(parent.path()), parent.path() + "/orders");
}

TEST(OnlyStore, IsNotInAFolderThatIsNotThere) {
  const TempFolder parent;
  EXPECT_EQ(failureOf(parent.path() + "/none"), "no store is named, and none is in " +
                                                    parent.path() +
                                                    "/none: name one, or set ORVANE_STORE");
}

}  // namespace
}  // namespace orvane::test
