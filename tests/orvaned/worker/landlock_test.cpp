#include "worker/landlock.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>

#include "support/confined_child.hpp"
#include "support/temp_folder.hpp"

namespace orvane::test {
namespace {

using orvaned::forbidPaths;
using orvaned::landlockRights;
using orvaned::landlockVersion;

void expectRights(int version, std::uint64_t files, std::uint64_t network, std::uint64_t scopes) {
  const orvaned::LandlockRights rights = landlockRights(version);
  EXPECT_EQ(rights.files, files) << "version " << version;
  EXPECT_EQ(rights.network, network) << "version " << version;
  EXPECT_EQ(rights.scopes, scopes) << "version " << version;
}

TEST(Landlock, EachVersionForbidsAllThatItKnows) {
  expectRights(0, 0, 0, 0);
  expectRights(1, 0x1fff, 0, 0);
  expectRights(2, 0x3fff, 0, 0);  // Linux 6.1
  expectRights(3, 0x7fff, 0, 0);
  expectRights(4, 0x7fff, 3, 0);
  expectRights(5, 0xffff, 3, 0);
  expectRights(6, 0xffff, 3, 3);
  expectRights(7, 0xffff, 3, 3);
  expectRights(99, 0xffff, 3, 3);
}

// An errno; 0 when it could be opened.
int open(const std::string& path, int flags) {
  const int fd = ::open(path.c_str(), flags | O_CLOEXEC);
  return fd < 0 ? errno : 0;
}

// The rules of a version, in a separate process.
std::string runUnder(int version, int allowedFile, const std::function<int()>& body) {
  return runInChild([&] {
    prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
    forbidPaths(version, allowedFile);
    return body();
  });
}

TEST(Landlock, EachVersionOfThisKernelForbidsPaths) {
  const int newest = landlockVersion();
  ASSERT_GE(newest, 1) << "the tests need a kernel with Landlock";
  const std::string refused = "exit " + std::to_string(EACCES);
  EXPECT_EQ(runUnder(0, -1, [] { return open("/dev/null", O_RDONLY); }), "exit 0");
  for (int version = 1; version <= newest; ++version) {
    EXPECT_EQ(runUnder(version, -1, [] { return open("/dev/null", O_RDONLY); }), refused)
        << version;
    EXPECT_EQ(runUnder(version, -1, [] { return open("/", O_RDONLY | O_DIRECTORY); }), refused)
        << version;
  }
}

TEST(Landlock, EachVersionAllowsTheOneFile) {
  const TempFolder folder;
  const std::string allowed = folder.path() + "/allowed";
  const std::string other = folder.path() + "/other";
  writeFile(allowed, "");
  writeFile(other, "");
  const int file = ::open(allowed.c_str(), O_PATH | O_CLOEXEC);
  for (int version = 1; version <= landlockVersion(); ++version) {
    EXPECT_EQ(runUnder(version, file, [&] { return open(allowed, O_RDWR); }), "exit 0") << version;
    EXPECT_EQ(runUnder(version, file, [&] { return open(other, O_RDWR); }),
              "exit " + std::to_string(EACCES))
        << version;
  }
  close(file);
}

}  // namespace
}  // namespace orvane::test
