// A confined process's end of the socket to its broker.

#include "store/brokered_store.hpp"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

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
    orvaned::Broker({store.path(), {"orders"}, Sync::none}, std::move(end)).run();
  });
  {
    BrokerClient client(std::move(ours));
    BrokeredAccess access(client, store.path());
    const std::string id = access.createStream().head.stream;
    EXPECT_EQ(namesIn(store.path()), Names{"orders-" + id});
  }
  broker.join();
}

// Its worker may still write into it.
TEST(BrokerClientTest, AStreamStaysLockedWhenItsBrokerHasDied) {
  const TempFolder store;
  auto [ours, theirs] = orvaned::connectedSockets();
  const tool::Fd connection(dup(ours.get()));
  BrokerClient client(std::move(ours));
  std::thread broker([&store, end = std::move(theirs)]() mutable {
    orvaned::Broker({store.path(), {"orders"}, Sync::none}, std::move(end)).run();
  });
  orvaned::StoreAccess::NewStream stream = BrokeredAccess(client, store.path()).createStream();
  shutdown(connection.get(), SHUT_WR);  // the broker ends
  broker.join();
  orvaned::LocalDirectory folder(store.path() + "/orders-" + stream.head.stream);
  EXPECT_FALSE(folder.lock());
  stream.folder.reset();
  EXPECT_TRUE(folder.lock());
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
