// What leased queues are named.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <regex>
#include <set>

#include "interposed.hpp"
#include "leases/lease_run.hpp"
#include "shm/queue_rules.hpp"
#include "shm/shm_names.hpp"
#include "support/temp_folder.hpp"

namespace orvane::test {
namespace {

using orvaned::LeaseRun;

class LeaseNames : public testing::Test {
 protected:
  // Under a name that the next lease would get, until the test's end.
  void squat(const std::string& name, bool isFifo) {
    squatted.push_back("/dev/shm/" + name);
    if (isFifo) {
      ASSERT_EQ(mkfifo(squatted.back().c_str(), 0600), 0);
    } else {
      writeFile(squatted.back(), "forged");
    }
  }
  ~LeaseNames() override {
    for (const std::string& path : squatted) {
      std::filesystem::remove(path);
    }
    interposed::nextRandomNumbers({});
  }

  const LeaseRun run;
  // Of the run, and so of each of its queues.
  const std::string begin = [this] {
    const std::string name = run.newQueueName();
    return name.substr(0, name.rfind('_') + 1);
  }();
  std::vector<std::string> squatted;
};

TEST_F(LeaseNames, EndIn64RandomBits) {
  const std::regex shape("orvane-[0-9]{8}T[0-9]{6}-" + std::to_string(getpid()) + "_[0-9a-f]{16}");
  std::set<std::string> names;
  for (int i = 0; i < 100; ++i) {
    names.insert(run.newQueueName());
    EXPECT_TRUE(std::regex_match(*names.begin(), shape)) << *names.begin();
  }
  EXPECT_EQ(names.size(), 100U);
}

TEST_F(LeaseNames, AreWhatTheSystemsRandomNumbersSay) {
  interposed::nextRandomNumbers({0x0123456789abcdef, 0, 0xfedcba9876543210});
  EXPECT_EQ(run.newQueueName(), begin + "0123456789abcdef");
  EXPECT_EQ(run.newQueueName(), begin + "0000000000000000");
  EXPECT_EQ(run.newQueueName(), begin + "fedcba9876543210");
}

// One that opened it would wait for ever for the fifo's other end.
TEST_F(LeaseNames, SkipANameThatSomebodyHasAndDoNotOpenIt) {
  squat(begin + "0000000000000001", false);
  squat(begin + "0000000000000002Response", true);
  squat("." + begin + "0000000000000003.stats", true);
  squat("." + begin + "0000000000000004.new", true);
  std::filesystem::create_symlink("nowhere", "/dev/shm/" + begin + "0000000000000005");
  squatted.push_back("/dev/shm/" + begin + "0000000000000005");
  interposed::nextRandomNumbers({1, 2, 3, 4, 5, 6});
  EXPECT_EQ(run.newQueueName(), begin + "0000000000000006");
  EXPECT_EQ(readFile(squatted[0]), "forged");
}

TEST_F(LeaseNames, BelongToTheirRunAsThoseOfEarlierServersDo) {
  const std::string ofRun = begin.substr(0, begin.size() - 1);
  EXPECT_EQ(tool::runOf(begin + "0123456789abcdef"), ofRun);
  EXPECT_EQ(tool::runOf(begin + "12"), ofRun);
  for (const char* other : {"", "0123456789abcde", "0123456789abcdefa", "0123456789ABCDEF", "x"}) {
    EXPECT_EQ(tool::runOf(begin + other), std::nullopt) << other;
  }
  EXPECT_EQ(
      tool::queuesOf(ofRun, {begin + "0123456789abcdef", "." + begin + "ffffffffffffffff.stats",
                             begin + "7Response", begin + "xyz"}),
      (std::vector<std::string>{begin + "0123456789abcdef", begin + "7",
                                begin + "ffffffffffffffff"}));
}

std::string refusalOf(const std::string& name) {
  try {
    tool::checkFixedQueueName(name);
    return "accepted";
  } catch (const std::invalid_argument& e) {
    return e.what();
  }
}

TEST(FixedQueueName, DoesNotLookLikeThatOfALease) {
  const std::string reason =
      "the queue name begins as those of leased queues do, orvane-TIME-PROCESS: take another one";
  for (const char* name : {"orvane-20200101T000000-1_0123456789abcdef",
                           "orvane-20200101T000000-1_7", "orvane-20200101T000000-1",
                           "orvane-20200101T000000-1_4.new", "orvane-20200101T000000-12x"}) {
    EXPECT_EQ(refusalOf(name), reason) << name;
    EXPECT_NO_THROW(tool::checkQueueName(name));  // a lease has it
  }
  for (const char* name :
       {"orvane", "orvane-1", "orvane-2020-1", "my-orvane-20200101T000000-1_7"}) {
    EXPECT_EQ(refusalOf(name), "accepted") << name;
  }
  EXPECT_EQ(refusalOf("a/b"),
            "the queue name holds a character that is not allowed: use letters, digits and _.-");
}

}  // namespace
}  // namespace orvane::test
