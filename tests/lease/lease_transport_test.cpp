#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>

#include <memory>

#include "orvane/lease.hpp"
#include "orvane/writer.hpp"
#include "ring_server.hpp"
#include "support/fake_server.hpp"
#include "support/queue_pair.hpp"
#include "support/throws.hpp"
#include "texts.hpp"

namespace orvane::test {
namespace {

TEST(LeaseTransport, FallsBackToAQueueWhereTheServerDoesNotKnowRings) {
  FakeServer server;
  server.serveEach(
      {{.says = {"refused 1007 unknown request"}, .ends = true}, {.says = {"lease q"}}});
  const Lease lease(server.path(), kLong, Transport::automatic);
  EXPECT_EQ(server.requests(), (Texts{"orvane 1 ring 8388608", "orvane 1 lease"}));
  EXPECT_EQ(lease.transport(), Transport::queue);
  EXPECT_EQ(lease.ring(), nullptr);
  EXPECT_EQ(lease.queueName(), "q");
}

TEST(LeaseTransport, IsARingWhereThereIsOne) {
  RingServer ring;
  ring.server.serve({.says = ring.granted(), .files = ring.files()});
  EXPECT_EQ(ring.lease(Transport::automatic)->transport(), Transport::ring);
  EXPECT_EQ(ring.server.requests(), Texts{"orvane 1 ring 1048576"});
}

TEST(LeaseTransport, DoesNotFallBackWhenARingWasAskedFor) {
  FakeServer server;
  server.serve({.says = {"refused 1007 unknown request"}});
  EXPECT_TRUE(
      throwsErrno(1007, "unknown request", [&] { Lease(server.path(), kLong, Transport::ring); }));
  EXPECT_EQ(server.requests(), Texts{"orvane 1 ring 8388608"});
}

TEST(LeaseTransport, FallsBackForNoOtherReason) {
  for (const char* const refusal : {"refused 1005 x", "refused 1006 x", "refused 1008 x"}) {
    FakeServer server;
    server.serve({.says = {refusal}});
    EXPECT_ANY_THROW(Lease(server.path(), kLong, Transport::automatic));
    EXPECT_EQ(server.requests(), Texts{"orvane 1 ring 8388608"}) << refusal;
  }
}

TEST(LeaseTransport, IsAskedForOnceIfTheSecondRequestIsRefusedToo) {
  FakeServer server;
  server.serveEach({{.says = {"refused 1007 a"}}, {.says = {"refused 1007 b"}}});
  EXPECT_TRUE(throwsErrno(1007, "b", [&] { Lease(server.path(), kLong, Transport::automatic); }));
}

TEST(LeaseTransport, IsAQueueByDefault) {
  FakeServer server;
  server.serve({.says = {"lease q"}});
  const Lease lease(server.path(), kLong);
  EXPECT_EQ(server.request(), "orvane 1 lease");
  EXPECT_EQ(lease.transport(), Transport::queue);
}

TEST(LeaseDescriptor, IsReadableWithAReceiptAndAtTheEnd) {
  FakeServer server;
  server.serve({.says = {"lease q"}});
  Lease lease(server.path(), kLong);
  const auto isReadable = [&] {
    pollfd ready = {lease.fd(), POLLIN, 0};
    return poll(&ready, 1, 0) == 1;
  };
  server.awaitScript();
  EXPECT_FALSE(isReadable());
  server.say(kShortReceipt);
  EXPECT_TRUE(isReadable());
  lease.receipt(0);
  EXPECT_FALSE(isReadable());
  server.end();
  EXPECT_TRUE(isReadable());
  struct stat status = {};
  EXPECT_EQ(fstat(lease.fd(), &status), 0);
  EXPECT_TRUE(S_ISSOCK(status.st_mode));
}

TEST(LeaseMakeWriter, MakesTheWriterOfTheLeasesTransport) {
  {
    RingServer ring;
    ring.server.serve({.says = ring.granted(), .files = ring.files()});
    const auto lease = ring.lease();
    const std::unique_ptr<ChannelWriter> writer = makeWriter("s", *lease, 1, 0);
    EXPECT_NE(dynamic_cast<RingWriter*>(writer.get()), nullptr);
    writer->stop(false);
    EXPECT_NE(ring.reader.receive().data, nullptr);
    EXPECT_TRUE(throwsErrno(15, "Timed out after waiting 1s for an answer of orvaned on stream s",
                            [&] { writer->open(); }));
  }
  const QueuePair pair;
  FakeServer server;
  server.serve({.says = {"lease " + pair.name()}});
  const Lease lease(server.path(), kLong);
  const std::unique_ptr<ChannelWriter> writer = makeWriter("s", lease, 7, 0);
  EXPECT_NE(dynamic_cast<ShmWriter*>(writer.get()), nullptr);
  writer->stop(false);
  EXPECT_EQ(pair.waiting(), 1U);
}

TEST(LeaseMakeWriter, RejectsWhatTheWritersReject) {
  RingServer ring;
  ring.server.serve({.says = ring.granted(), .files = ring.files()});
  const auto lease = ring.lease();
  EXPECT_TRUE(
      throwsErrno(9, "Invalid timeout, specified value 0 was less than minimum allowed value of 1",
                  [&] { makeWriter("s", *lease, 0, 0); }));
}

}  // namespace
}  // namespace orvane::test
