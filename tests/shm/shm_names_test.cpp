#include "shm/shm_names.hpp"

#include <gtest/gtest.h>

namespace {

using Names = std::vector<std::string>;

TEST(ShmNames, OfAPairAreListedAsTheyGo) {
  const auto paths = tool::pathsOfPair("orders");
  EXPECT_EQ(Names(paths.begin(), paths.end()),
            (Names{"/dev/shm/orders", "/dev/shm/ordersResponse", "/dev/shm/.orders.new",
                   "/dev/shm/.ordersResponse.new", "/dev/shm/.orders.stats"}));
}

TEST(ShmNames, OfLocksAndTotalsAreUnderstood) {
  EXPECT_EQ(tool::lockedBy(".orders.lock"), "orders");
  EXPECT_EQ(tool::lockedBy(".a.b.lock"), "a.b");
  EXPECT_EQ(tool::countedBy(".orders.stats"), "orders");
  EXPECT_EQ(tool::countedBy(".orders.stats.stats"), "orders.stats");
  for (const char* other : {"orders.lock", ".orders.new", ".lock", "..lock", ".orders.lockx", ""}) {
    EXPECT_EQ(tool::lockedBy(other), std::nullopt) << other;
    EXPECT_EQ(tool::countedBy(other), std::nullopt) << other;
  }
}

TEST(ShmNames, OfRunsAndTheirQueuesAreKnown) {
  EXPECT_TRUE(tool::isRun("orvane-20200101T000000-1"));
  EXPECT_EQ(tool::runOf("orvane-20200101T000000-1_12"), "orvane-20200101T000000-1");
  for (const char* other : {"orvane-20200101T000000-1_12", "orvane-2020", "orders", ""}) {
    EXPECT_FALSE(tool::isRun(other)) << other;
  }
  EXPECT_EQ(tool::runOf("orvane-20200101T000000-1"), std::nullopt);
  const std::string run = "orvane-20200101T000000-1";
  EXPECT_EQ(tool::queuesOf(run, {"." + run + "_1.new", "." + run + "_2.stats", run + "_3Response",
                                 "." + run + ".lock", run + "_4.old", run + "1_5", "orders"}),
            (Names{run + "_1", run + "_2", run + "_3"}));
}

}  // namespace
