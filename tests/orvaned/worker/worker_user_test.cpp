// Which user the workers of a server run as.

#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include <array>
#include <stdexcept>
#include <string>

#include "support/confined_child.hpp"
#include "worker/worker_user.hpp"

namespace orvane::test {
namespace {

// In a child: getpwnam() and the rights are this process's.
std::string chosen(Rights rights, const std::string& name) {
  int ends[2] = {};
  EXPECT_EQ(pipe(ends), 0);
  EXPECT_EQ(runInChild([&] {
              takeOn(rights);
              std::string text;
              try {
                const orvaned::WorkerUserChoice choice = orvaned::chooseWorkerUser(name);
                text = (choice.user ? std::to_string(choice.user->user) : "the server's") + " " +
                       choice.warning;
              } catch (const std::invalid_argument& e) {
                text = e.what();
              }
              return write(ends[1], text.data(), text.size()) < 0 ? 1 : 0;
            }),
            "exit 0");
  close(ends[1]);
  std::array<char, 1024> text = {};
  const ssize_t length = read(ends[0], text.data(), text.size());
  close(ends[0]);
  return {text.data(), static_cast<std::size_t>(length)};
}

TEST(WorkerUserName, IsOrvanedOrElseNobodyByDefault) {
  const passwd* orvaned = getpwnam("orvaned");
  const std::string expected =
      orvaned != nullptr
          ? std::to_string(orvaned->pw_uid) + " "
          : "65534 there is no user orvaned: workers run as user 65534 (--worker-user names "
            "another)";
  EXPECT_EQ(chosen(rightsHere().front(), ""), geteuid() == 0 ? expected : "the server's ");
}

TEST(WorkerUserName, IsLookedUpWhereTheServerIsRoot) {
  for (const Rights rights : rightsHere()) {
    if (rights == Rights::root) {
      EXPECT_EQ(chosen(rights, "nobody"), "65534 ");
      EXPECT_EQ(chosen(rights, "root"), "the server's ");
      EXPECT_EQ(chosen(rights, "no-such-user"),
                "--worker-user no-such-user: there is no such user");
    } else {
      EXPECT_EQ(chosen(rights, ""), "the server's ");
      EXPECT_EQ(chosen(rights, "root"),
                "--worker-user root: only a server that runs as root can run its workers as "
                "another user");
    }
  }
}

}  // namespace
}  // namespace orvane::test
