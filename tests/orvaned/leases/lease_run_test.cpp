#include "leases/lease_run.hpp"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <regex>

#include "support/temp_folder.hpp"

namespace {

using orvane::test::readFile;
using orvaned::LeaseRun;
using orvaned::ownerOfLeased;
using tool::LockFile;

TEST(LeaseRunTest, NamesEachQueueByTimeAndProcessAndRandomDigits) {
  const LeaseRun run;
  const std::regex shape("orvane-[0-9]{8}T[0-9]{6}-" + std::to_string(getpid()) + "_[0-9a-f]{16}");
  const std::string first = run.newQueueName();
  const std::string second = run.newQueueName();
  EXPECT_TRUE(std::regex_match(first, shape)) << first;
  EXPECT_TRUE(std::regex_match(second, shape)) << second;
  EXPECT_NE(first, second);
}

TEST(LeaseRunTest, IsAliveWhileItsLockIsHeld) {
  std::string queue;
  std::string lock;
  {
    LeaseRun run;
    run.lockForQueues();
    run.lockForQueues();
    queue = run.newQueueName();
    lock = "/dev/shm/." + queue.substr(0, queue.rfind('_')) + ".lock";
    EXPECT_EQ(readFile(lock), std::to_string(getpid()) + "\n");
    EXPECT_EQ(ownerOfLeased(queue), LockFile::OwnerState::alive);
  }
  EXPECT_FALSE(std::filesystem::exists(lock));
  EXPECT_EQ(ownerOfLeased(queue), LockFile::OwnerState::dead);
}

TEST(LeaseRunTest, HasNoLockBeforeItsFirstQueue) {
  const LeaseRun run;
  const std::string queue = run.newQueueName();
  EXPECT_EQ(run.lockFile(), -1);
  EXPECT_FALSE(std::filesystem::exists("/dev/shm/." + queue.substr(0, queue.rfind('_')) + ".lock"));
}

// Its streams are in the store of one server, its queues may be removed by any.
TEST(LeaseRunTest, IsDeadWhileAnotherServerCleansUpAfterIt) {
  const std::string run = "orvane-20200101T000001-" + std::to_string(getpid());
  orvane::test::writeFile(tool::lockPathOf(run), "1\n");
  const auto lock = LockFile::takeOver(tool::lockPathOf(run));
  EXPECT_EQ(ownerOfLeased(run + "_0"), LockFile::OwnerState::dead);
}

TEST(LeaseRunTest, OnlyLeasedQueuesAreOfADeadRun) {
  EXPECT_EQ(ownerOfLeased("orvane-20200101T000000-1_0"), LockFile::OwnerState::dead);
  for (const char* name : {"orders", "orvane-20200101T000000-1", "orvane-20200101T000000-1_",
                           "orvane-20200101T000000-1_0x", "my-orvane-20200101T000000-1_0",
                           "orvane-20200101-1_0", ""}) {
    EXPECT_EQ(ownerOfLeased(name), LockFile::OwnerState::alive) << name;
  }
}

}  // namespace
