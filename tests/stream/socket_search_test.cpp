#include "stream/socket_search.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "support/fake_server.hpp"
#include "support/system_call.hpp"
#include "support/temp_folder.hpp"
#include "support/throws.hpp"

namespace orvane::test {
namespace {

class SocketSearch : public testing::Test {
 protected:
  // A server's folder whose socket leads to a real one.
  void addServer(const std::string& name) {
    std::filesystem::create_directory(folder.path() + "/" + name);
    std::filesystem::create_symlink(server.path(), socketOf(name));
  }
  std::string socketOf(const std::string& name) const {
    return folder.path() + "/" + name + "/socket";
  }
  std::string none() const {
    return "No socket is given, and there is none at " + folder.path() +
           "/*/socket: is the server running?";
  }

  const FakeServer server;
  const TempFolder folder;
};

TEST_F(SocketSearch, FindsTheOnlyOne) {
  addServer("orders");
  EXPECT_EQ(onlySocketIn(folder.path()), socketOf("orders"));
}

TEST_F(SocketSearch, ListsSeveral) {
  addServer("orders");
  addServer("backups");
  EXPECT_TRUE(throwsErrno(900,
                          "No socket is given, and there are several; choose one of them: " +
                              socketOf("backups") + ", " + socketOf("orders"),
                          [this] { onlySocketIn(folder.path()); }));
}

TEST_F(SocketSearch, FindsNoneInAnEmptyFolder) {
  EXPECT_TRUE(throwsErrno(900, none(), [this] { onlySocketIn(folder.path()); }));
}

TEST_F(SocketSearch, FindsNoneWithoutTheFolder) {
  std::filesystem::remove(folder.path());
  EXPECT_TRUE(throwsErrno(900, none(), [this] { onlySocketIn(folder.path()); }));
}

TEST_F(SocketSearch, TakesNothingElseForASocket) {
  std::filesystem::create_directory(folder.path() + "/orders");
  writeFile(socketOf("orders"), "a file");
  writeFile(folder.path() + "/file", "");
  std::filesystem::create_directories(socketOf("backups"));
  EXPECT_TRUE(throwsErrno(900, none(), [this] { onlySocketIn(folder.path()); }));
}

}  // namespace
}  // namespace orvane::test
