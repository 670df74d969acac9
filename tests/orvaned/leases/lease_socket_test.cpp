// The socket at which leases are asked for, within one process.

#include "leases/lease_socket.hpp"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cerrno>
#include <filesystem>
#include <stdexcept>

#include "interposed.hpp"
#include "support/temp_folder.hpp"

namespace orvane::test {
namespace {

namespace fs = std::filesystem;
using orvaned::LeaseSocket;
using tool::Fd;

// 0, or why there is no connection.
int connectTo(const std::string& path) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  const Fd client(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  return connect(client.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0
             ? 0
             : errno;
}

std::string failureAt(const std::string& path) {
  try {
    const LeaseSocket listening(path, 0600);
    return "it listens";
  } catch (const std::runtime_error& e) {
    return e.what();
  }
}

class LeaseSocketName : public testing::Test {
 protected:
  const TempFolder folder;
  const std::string path = folder.path() + "/socket";
};

TEST_F(LeaseSocketName, IsThereOnlyWhenItListensSoThatNoClientIsRefused) {
  int before = -1;
  interposed::beforeListen([&] { before = connectTo(path); });
  const LeaseSocket listening(path, 0600);
  EXPECT_EQ(before, ENOENT);
  EXPECT_EQ(connectTo(path), 0);
  EXPECT_EQ(namesIn(folder.path()), (std::vector<std::string>{"socket", "socket.lock"}));
}

TEST_F(LeaseSocketName, HasItsModeFromTheBeginning) {
  for (const mode_t mode : {0600U, 0660U, 0666U}) {
    const LeaseSocket listening(path, mode);
    struct stat status = {};
    ASSERT_EQ(lstat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, mode);
  }
}

TEST_F(LeaseSocketName, IsTakenFromADeadServersSocketAtOnce) {
  {
    const LeaseSocket listening(path, 0600);
    fs::rename(path, path + ".kept");
    fs::rename(path + ".kept", path);
    fs::create_hard_link(path, path + ".dead");
  }
  fs::rename(path + ".dead", path);
  EXPECT_EQ(connectTo(path), ECONNREFUSED);
  bool wasThere = false;
  interposed::beforeListen([&] { wasThere = fs::exists(fs::symlink_status(path)); });
  const LeaseSocket listening(path, 0600);
  EXPECT_TRUE(wasThere);
  EXPECT_EQ(connectTo(path), 0);
}

// What a server that was killed at its start left.
TEST_F(LeaseSocketName, IsNotKeptAwayByAHalfMadeSocket) {
  writeFile(folder.path() + "/.socket.new", "");
  const LeaseSocket listening(path, 0600);
  EXPECT_EQ(connectTo(path), 0);
  EXPECT_FALSE(fs::exists(folder.path() + "/.socket.new"));
}

TEST_F(LeaseSocketName, MayBeRelativeToTheWorkingFolder) {
  const fs::path before = fs::current_path();
  fs::current_path(folder.path());
  {
    const LeaseSocket listening("socket", 0600);
    EXPECT_EQ(connectTo(path), 0);
  }
  fs::current_path(before);
  EXPECT_EQ(namesIn(folder.path()), std::vector<std::string>{});
}

TEST_F(LeaseSocketName, OfAProcessWithoutFilesNamesThatError) {
  interposed::failNextSocket(EMFILE);
  EXPECT_EQ(failureAt(path), "cannot listen at " + path + ": Too many open files");
  EXPECT_EQ(namesIn(folder.path()), std::vector<std::string>{});
}

}  // namespace
}  // namespace orvane::test
