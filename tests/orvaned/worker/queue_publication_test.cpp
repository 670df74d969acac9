// How a queue pair gets its names, and to whom it is given.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <stdexcept>

#include "support/await.hpp"
#include "support/limits.hpp"
#include "support/queue_pair.hpp"
#include "worker/queue_pair.hpp"

namespace {

using boost::interprocess::create_only;
using boost::interprocess::message_queue;
using orvane::test::QueueName;
using orvane::test::sharedMemoryOf;
using orvane::test::uniqueQueueName;
using orvane::test::WithoutPrivileges;
using orvaned::Owner;
using orvaned::QueuePair;

using Names = std::vector<std::string>;

class QueuePublicationTest : public testing::Test {
 protected:
  std::string refusal(std::optional<Owner> owner = {}) const {
    try {
      const QueuePair pair(name, {2, 100, 0600}, owner);
      return "created";
    } catch (const std::runtime_error& e) {
      return e.what();
    }
  }
  struct stat statusOf(const std::string& queue) const {
    struct stat status = {};
    EXPECT_EQ(stat(("/dev/shm/" + queue).c_str(), &status), 0);
    return status;
  }
  void expectGivenTo(uid_t user, gid_t group, mode_t mode) const {
    for (const std::string& queue : {name, name + "Response"}) {
      EXPECT_EQ(statusOf(queue).st_uid, user);
      EXPECT_EQ(statusOf(queue).st_gid, group);
      EXPECT_EQ(statusOf(queue).st_mode & 07777, mode);
    }
  }

  const QueueName nameGuard{uniqueQueueName()};
  const QueueName responseGuard{nameGuard.text() + "Response"};
  const QueueName privateGuard{"." + nameGuard.text() + ".new"};
  const std::string& name = nameGuard.text();
};

TEST_F(QueuePublicationTest, LeavesNoPrivateName) {
  {
    const QueuePair pair(name, {2, 100, 0600});
    EXPECT_EQ(sharedMemoryOf(name), (Names{"." + name + ".stats", name, name + "Response"}));
    EXPECT_EQ(statusOf(name).st_nlink, 1U);
  }
  EXPECT_EQ(sharedMemoryOf(name), Names{});
}

std::string inUse(const std::string& queue) {
  return "the queue " + queue + " is in use: take another name, or remove /dev/shm/" + queue +
         " if its server is gone";
}

TEST_F(QueuePublicationTest, NeverReplacesAQueueInUse) {
  for (const std::string& taken : {name, name + "Response"}) {
    const message_queue queue(create_only, taken.c_str(), 1, 100);
    const ino_t file = statusOf(taken).st_ino;
    EXPECT_EQ(refusal(), inUse(taken));
    EXPECT_EQ(sharedMemoryOf(name), Names{taken});
    EXPECT_EQ(statusOf(taken).st_ino, file);
    message_queue::remove(taken.c_str());
  }
}

TEST_F(QueuePublicationTest, LeavesAStrangersPrivateNameAlone) {
  const std::string taken = "." + name + ".new";
  const message_queue queue(create_only, taken.c_str(), 1, 100);
  EXPECT_EQ(refusal(), "cannot create /dev/shm/" + name + ": File exists");
  EXPECT_EQ(sharedMemoryOf(name), Names{taken});
}

TEST_F(QueuePublicationTest, GivesThePairToItsOwner) {
  if (geteuid() != 0) {
    EXPECT_EQ(refusal(Owner{65534, 65533}),
              "cannot give a queue to user 65534 or to group 65533: run orvaned as root, or as a "
              "member of that group");
    return;
  }
  const QueuePair pair(name, {2, 100, 0600}, Owner{65534, 65533});
  expectGivenTo(65534, 65533, 0600);
}

TEST_F(QueuePublicationTest, KeepsThePairOfItsOwnUserAsItIs) {
  const QueuePair pair(name, {2, 100, 0600}, Owner{geteuid(), getegid()});
  expectGivenTo(geteuid(), getegid(), 0600);
}

TEST_F(QueuePublicationTest, GivesThePairToAGroupWhereItMayNotGiveItToAUser) {
  const WithoutPrivileges ordinary;
  const QueuePair pair(name, {2, 100, 0600}, Owner{geteuid() - 1, getegid()});
  expectGivenTo(geteuid(), getegid(), 0660);
}

TEST_F(QueuePublicationTest, IsRefusedWhereItCanBeGivenToNobody) {
  const WithoutPrivileges ordinary;
  const uid_t user = geteuid() - 1;
  EXPECT_EQ(refusal(Owner{user, 64999}),
            "cannot give a queue to user " + std::to_string(user) +
                " or to group 64999: run orvaned as root, or as a member of that group");
  EXPECT_EQ(sharedMemoryOf(name), Names{});
}

}  // namespace
