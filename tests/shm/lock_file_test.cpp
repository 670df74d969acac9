#include "shm/lock_file.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

#include "support/await.hpp"
#include "support/child.hpp"
#include "support/temp_folder.hpp"

namespace orvane::test {
namespace {

namespace fs = std::filesystem;
using tool::LockFile;
using OwnerState = LockFile::OwnerState;

// A process that took the lock and died, and one that it forked and that still has it.
class DeadOwner {
 public:
  explicit DeadOwner(const std::string& path) {
    if (pipe(hold) != 0) {
      throw std::runtime_error("no pipe");
    }
    Child owner([&] {
      const LockFile lock(path);
      if (fork() == 0) {
        char byte = 0;
        close(hold[1]);
        _exit(read(hold[0], &byte, 1) == 0 ? 0 : 1);  // when the test lets go
      }
      raise(SIGKILL);
    });
    id = owner.pid();
    owner.nextChange();
  }
  ~DeadOwner() {
    letGo();
    close(hold[0]);
  }
  DeadOwner(const DeadOwner&) = delete;
  DeadOwner& operator=(const DeadOwner&) = delete;

  pid_t pid() const { return id; }
  void letGo() {
    if (hold[1] >= 0) {
      close(std::exchange(hold[1], -1));
    }
  }

 private:
  int hold[2] = {};
  pid_t id = 0;
};

class LockFileTest : public testing::Test {
 protected:
  std::string refusal() const {
    try {
      const LockFile lock(path);
      return "taken";
    } catch (const std::runtime_error& e) {
      return e.what();
    }
  }

  const TempFolder folder;
  const std::string path = folder.path() + "/lock";
};

TEST_F(LockFileTest, HoldsItsOwnersNumberAndIsRemovedAtItsEnd) {
  {
    const LockFile lock(path);
    EXPECT_EQ(readFile(path), std::to_string(getpid()) + "\n");
    EXPECT_EQ(fs::status(path).permissions(), fs::perms::owner_read | fs::perms::owner_write);
    EXPECT_EQ(LockFile::ownerOf(path), LockFile::OwnerState::alive);
  }
  EXPECT_EQ(namesIn(folder.path()), std::vector<std::string>{});
  EXPECT_EQ(LockFile::ownerOf(path), LockFile::OwnerState::dead);
}

TEST_F(LockFileTest, IsRemovedOnceWhenItWasMoved) {
  LockFile lock(path);
  {
    const LockFile moved(std::move(lock));
    EXPECT_TRUE(fs::exists(path));
  }
  EXPECT_FALSE(fs::exists(path));
}

TEST_F(LockFileTest, IsNotGivenToASecondTaker) {
  const LockFile lock(path);
  const std::string reason =
      "another orvaned, process " + std::to_string(getpid()) + ", holds " + path;
  EXPECT_EQ(refusal(), reason);
  EXPECT_EQ(refusal(), reason);
  EXPECT_EQ(readFile(path), std::to_string(getpid()) + "\n");
  EXPECT_FALSE(LockFile::takeOver(path));
  EXPECT_TRUE(fs::exists(path));
}

TEST_F(LockFileTest, IsTakenFromADeadOwner) {
  { DeadOwner dead(path); }
  ASSERT_TRUE(eventually([this] { return LockFile::ownerOf(path) == LockFile::OwnerState::dead; }));
  EXPECT_TRUE(fs::exists(path));
  const LockFile lock(path);
  EXPECT_EQ(readFile(path), std::to_string(getpid()) + "\n");
}

TEST_F(LockFileTest, WaitsForWhatADeadOwnerForked) {
  DeadOwner dead(path);
  EXPECT_EQ(LockFile::ownerOf(path), LockFile::OwnerState::dying);
  EXPECT_FALSE(LockFile::takeOver(path));
  Child taker([&] {
    dead.letGo();  // this copy of the pipe's end
    const LockFile lock(path);
  });
  // It waits by sleeping.
  EXPECT_TRUE(eventually([&] { return systemCallOf(taker.pid()) == SYS_clock_nanosleep; }));
  dead.letGo();
  EXPECT_EQ(taker.nextChange(), "exit 0");
  EXPECT_FALSE(fs::exists(path));
}

// A server that starts, or that looks whether another one is dead, has it for a moment.
TEST_F(LockFileTest, WaitsForAHolderThatHasNotSaidItsNumber) {
  tool::Fd holder(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  ASSERT_EQ(flock(holder.get(), LOCK_EX), 0);
  Child taker([&] {
    holder.reset();  // this copy of it
    const LockFile lock(path);
  });
  EXPECT_TRUE(eventually([&] {
    return systemCallOf(taker.pid()) == SYS_clock_nanosleep || stateOf(taker.pid()) == 'Z';
  }));
  holder.reset();
  EXPECT_EQ(taker.nextChange(), "exit 0");
}

TEST_F(LockFileTest, DoesNotWaitForEverForWhatADeadOwnerForked) {
  const DeadOwner dead(path);
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(refusal(),
            "another orvaned, process " + std::to_string(dead.pid()) + ", holds " + path);
  const auto taken = std::chrono::steady_clock::now() - begin;
  EXPECT_GE(taken, std::chrono::seconds(4));
  EXPECT_LT(taken, std::chrono::seconds(10));
}

TEST_F(LockFileTest, IsTakenOverFromADeadOwnerAndRemovedThen) {
  EXPECT_FALSE(LockFile::takeOver(path));
  EXPECT_FALSE(fs::exists(path));
  writeFile(path, "1\n");
  {
    const auto lock = LockFile::takeOver(path);
    ASSERT_TRUE(lock);
    EXPECT_FALSE(LockFile::takeOver(path));
    EXPECT_EQ(LockFile::ownerOf(path), OwnerState::dead);
    EXPECT_EQ(readFile(path), "");
  }
  EXPECT_FALSE(fs::exists(path));
}

TEST_F(LockFileTest, FollowsNoLink) {
  const std::string target = folder.path() + "/target";
  writeFile(target, "mine");
  fs::create_symlink(target, path);
  EXPECT_EQ(refusal(), "cannot lock " + path + ": Too many levels of symbolic links");
  EXPECT_THROW(LockFile::takeOver(path), std::runtime_error);
  EXPECT_EQ(readFile(target), "mine");
  EXPECT_TRUE(fs::is_symlink(path));
}

TEST_F(LockFileTest, CannotBeInAFolderThatIsNotThere) {
  try {
    const LockFile lock(folder.path() + "/none/lock");
    FAIL() << "taken";
  } catch (const std::runtime_error& e) {
    EXPECT_EQ(e.what(), "cannot lock " + folder.path() + "/none/lock: No such file or directory");
  }
}

TEST_F(LockFileTest, AnotherUsersFileIsLeftAlone) {
  if (geteuid() != 0) {  // who cannot give a file away finds one of root's
    EXPECT_THROW(LockFile("/etc/passwd"), std::runtime_error);
    return;
  }
  writeFile(path, "4711\n");
  ASSERT_EQ(chown(path.c_str(), 65534, 65534), 0);
  EXPECT_EQ(refusal(), "cannot lock " + path +
                           ": it belongs to another user: remove it, or take another name");
  EXPECT_FALSE(LockFile::takeOver(path));
  EXPECT_EQ(readFile(path), "4711\n");
}

// Another server would take it for a dead owner's, and keep it for seconds.
TEST(NewLockFile, IsLockedBeforeItCanBeFound) {
  const std::string path = "/dev/shm/.new-lock-" + std::to_string(getpid()) + ".lock";
  std::atomic<bool> done = false;
  int taken = 0;
  std::thread other([&] {
    while (!done) {
      taken += LockFile::takeOver(path) ? 1 : 0;
    }
  });
  for (int i = 0; i < 1000; ++i) {
    const LockFile lock = LockFile::ofNewName(path);
    EXPECT_EQ(readFile(path), std::to_string(getpid()) + "\n");
  }
  done = true;
  other.join();
  EXPECT_EQ(taken, 0);
  EXPECT_FALSE(fs::exists(path));
}

TEST(NewLockFile, IsMadeAsAnyOtherWhereItsNameIsTaken) {
  const TempFolder folder;
  const std::string path = folder.path() + "/lock";
  writeFile(path, "4711\n");
  const LockFile lock = LockFile::ofNewName(path);
  EXPECT_EQ(readFile(path), std::to_string(getpid()) + "\n");
  EXPECT_FALSE(LockFile::takeOver(path));
}

TEST(LockPath, IsHiddenBesideTheQueues) {
  EXPECT_EQ(tool::lockPathOf("orders"), "/dev/shm/.orders.lock");
}

}  // namespace
}  // namespace orvane::test
