// The file of a pair's totals: what it says from the start, who may read it, and when it is there.

#include "worker/totals_file.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ctime>
#include <filesystem>
#include <stdexcept>

#include "support/await.hpp"
#include "support/limits.hpp"
#include "support/queue_pair.hpp"
#include "support/totals_reader.hpp"
#include "worker/queue_pair.hpp"

namespace {

using orvane::test::publishedNumber;
using orvane::test::QueueName;
using orvane::test::readFile;
using orvane::test::sharedMemoryOf;
using orvane::test::uniqueQueueName;
using orvane::test::writeFile;
using orvaned::Owner;
using orvaned::QueuePair;

using Names = std::vector<std::string>;

std::uint64_t nanoseconds(clockid_t clock) {
  timespec now = {};
  clock_gettime(clock, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * 1000000000 +
         static_cast<std::uint64_t>(now.tv_nsec);
}

class TotalsFileTest : public testing::Test {
 protected:
  std::string refusal() const {
    try {
      const QueuePair pair(name, {2, 100, 0600});
      return "created";
    } catch (const std::runtime_error& e) {
      return e.what();
    }
  }
  struct stat status() const {
    struct stat found = {};
    EXPECT_EQ(lstat(path.c_str(), &found), 0);
    return found;
  }

  const QueueName nameGuard{uniqueQueueName()};
  const QueueName responseGuard{nameGuard.text() + "Response"};
  const QueueName totalsGuard{"." + nameGuard.text() + ".stats"};
  const std::string& name = nameGuard.text();
  const std::string path = "/dev/shm/." + name + ".stats";
};

TEST_F(TotalsFileTest, TellsWhoServesWhatSinceWhen) {
  const std::uint64_t wallBefore = nanoseconds(CLOCK_REALTIME);
  const std::uint64_t before = nanoseconds(CLOCK_MONOTONIC);
  const QueuePair pair(name, {5, 2000, 0600});
  EXPECT_EQ(readFile(path).substr(0, 16), std::string("orvstats\1\0\0\0\0\0\0\0", 16));
  EXPECT_EQ(publishedNumber(name, 16), static_cast<std::uint64_t>(getppid()));
  EXPECT_EQ(publishedNumber(name, 24), static_cast<std::uint64_t>(getpid()));
  EXPECT_EQ(publishedNumber(name, 32), 5U);
  EXPECT_EQ(publishedNumber(name, 40), 2000U);
  EXPECT_GE(publishedNumber(name, 48), wallBefore);
  EXPECT_LE(publishedNumber(name, 48), nanoseconds(CLOCK_REALTIME));
  EXPECT_GE(publishedNumber(name, 56), before);
  EXPECT_LE(publishedNumber(name, 56), nanoseconds(CLOCK_MONOTONIC));
  EXPECT_EQ(readFile(path).substr(64), std::string(144, '\0'));
}

TEST_F(TotalsFileTest, MayBeReadByWhoeverMayUseThePairAndWrittenByNobodyElse) {
  const mode_t before = umask(0077);
  for (const auto& [mode, expected] : {std::pair(0600U, 0600U), std::pair(0660U, 0640U),
                                       std::pair(0666U, 0644U), std::pair(0622U, 0600U)}) {
    const QueuePair pair(name, {2, 100, mode});
    EXPECT_EQ(status().st_mode & 07777, expected) << std::oct << mode;
    EXPECT_EQ(status().st_uid, geteuid());
  }
  umask(before);
}

// The server stays its owner, because an owner could cut the file while the server writes.
TEST_F(TotalsFileTest, OfALeasedPairMayBeReadByItsProducersGroup) {
  if (geteuid() != 0) {  // who may not give the pair to anybody gets none
    EXPECT_THROW(QueuePair(name, {2, 100, 0600}, Owner{65534, 65533}), std::runtime_error);
    EXPECT_EQ(sharedMemoryOf(name), Names{});
    return;
  }
  const QueuePair pair(name, {2, 100, 0600}, Owner{65534, 65533});
  EXPECT_EQ(status().st_uid, 0U);
  EXPECT_EQ(status().st_gid, 65533U);
  EXPECT_EQ(status().st_mode & 07777, 0640U);
}

TEST_F(TotalsFileTest, OfAPairOfTheServersOwnUserIsItsAlone) {
  const QueuePair pair(name, {2, 100, 0600}, Owner{geteuid(), 65533});
  EXPECT_EQ(status().st_gid, getegid());
  EXPECT_EQ(status().st_mode & 07777, 0600U);
}

TEST_F(TotalsFileTest, IsLockedWhileItsProcessServes) {
  tool::Fd file;
  {
    const QueuePair pair(name, {2, 100, 0600});
    file = tool::Fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(tool::isWorkerAlive(file.get()), true);
  }
  EXPECT_EQ(tool::isWorkerAlive(file.get()), false);
  EXPECT_EQ(tool::isWorkerAlive(-1), std::nullopt);
}

TEST_F(TotalsFileTest, LeavesAStrangersFileAlone) {
  writeFile(path, "mine");
  EXPECT_EQ(refusal(), "cannot create " + path + ": File exists");
  EXPECT_EQ(readFile(path), "mine");
  EXPECT_EQ(sharedMemoryOf(name), Names{"." + name + ".stats"});
}

TEST_F(TotalsFileTest, FollowsNoLink) {
  const orvane::test::TempFolder folder;
  const std::string target = folder.path() + "/target";
  std::filesystem::create_symlink(target, path);
  EXPECT_EQ(refusal(), "cannot create " + path + ": File exists");
  EXPECT_FALSE(std::filesystem::exists(target));
}

TEST_F(TotalsFileTest, LeavesNothingBehindWhenTheMemoryRunsOut) {
  {
    const orvane::test::FileSizeLimit limit(183);
    EXPECT_EQ(refusal(), "cannot create " + path + ": File too large");
  }
  EXPECT_EQ(sharedMemoryOf(name), Names{});
}

TEST_F(TotalsFileTest, GoesWhenTheQueuesCannotBeMade) {
  writeFile("/dev/shm/" + name + "Response", "");
  EXPECT_TRUE(refusal().starts_with("the queue " + name + "Response is in use: ")) << refusal();
  EXPECT_EQ(sharedMemoryOf(name), Names{name + "Response"});
}

}  // namespace
