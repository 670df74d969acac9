// A confined process's end of the socket to its broker.

#include "store/brokered_store.hpp"

#include <gtest/gtest.h>

#include <thread>

#include "store/broker.hpp"
#include "supervisor/child.hpp"
#include "support/temp_folder.hpp"
#include "support/throws.hpp"

namespace orvane::test {
namespace {

using orvaned::BrokerCall;
using orvaned::BrokerClient;
using orvaned::BrokeredAccess;
using orvaned::Sync;

using Names = std::vector<std::string>;

// A process that goes on after a dead one finds the replies that the dead one did not take.
TEST(BrokerClientTest, PassesOverRepliesToOthers) {
  const TempFolder store;
  auto [ours, theirs] = orvaned::connectedSockets();
  orvaned::sendRequest(ours,
                       {.serial = 77, .call = BrokerCall::checkStore, .name = {}, .other = {}});
  std::thread broker([&store, end = std::move(theirs)]() mutable {
    orvaned::Broker({store.path(), "orders", Sync::none}, std::move(end)).run();
  });
  {
    BrokerClient client(std::move(ours));
    BrokeredAccess access(client, store.path());
    const std::string id = access.createStream().id;
    EXPECT_EQ(namesIn(store.path()), Names{"orders-" + id});
  }
  broker.join();
}

TEST(BrokerClientTest, FailsWhenItsBrokerHasDied) {
  auto [ours, theirs] = orvaned::connectedSockets();
  theirs.reset();
  BrokerClient client(std::move(ours));
  EXPECT_TRUE(throwsErrno(1003, "the process that opens this worker's files has ended",
                          [&] { BrokeredAccess(client, "/none").createStream(); }));
}

}  // namespace
}  // namespace orvane::test
