// The label of a lease, and what a producer does where the server does not know labels.

#include <gtest/gtest.h>

#include "orvane/lease.hpp"
#include "ring_server.hpp"
#include "support/fake_server.hpp"
#include "support/throws.hpp"
#include "texts.hpp"

namespace orvane::test {
namespace {

testing::AssertionResult refusesLabel(const std::string& message, const std::string& label) {
  const FakeServer server;
  return throwsErrno(9, message,
                     [&] { Lease(server.path(), kLong, Transport::queue, kDefaultRing, label); });
}

TEST(LeaseLabel, IsSentWithTheRequest) {
  FakeServer server;
  server.serve({.says = {"lease q"}});
  const Lease lease(server.path(), kLong, Transport::queue, kDefaultRing, "daily backup");
  EXPECT_EQ(server.requests(), Texts{"orvane 1 lease label=daily%20backup"});
}

TEST(LeaseLabel, IsSentWithTheRequestForARing) {
  RingServer ring;
  ring.server.serve({.says = ring.granted(), .files = ring.files()});
  const Lease lease(ring.server.path(), kLong, Transport::automatic, kRing, "a=b");
  EXPECT_EQ(ring.server.requests(), Texts{"orvane 1 ring 1048576 label=a=b"});
  EXPECT_EQ(lease.transport(), Transport::ring);
}

TEST(LeaseLabel, IsLeftOutWhereTheServerDoesNotKnowLabels) {
  FakeServer server;
  server.serveEach(
      {{.says = {"refused 1007 unknown request"}, .ends = true}, {.says = {"lease q"}}});
  const Lease lease(server.path(), kLong, Transport::queue, kDefaultRing, "x");
  EXPECT_EQ(server.requests(), (Texts{"orvane 1 lease label=x", "orvane 1 lease"}));
  EXPECT_EQ(lease.queueName(), "q");
}

TEST(LeaseLabel, IsLeftOutOfARingBeforeTheRingIs) {
  RingServer ring;
  ring.server.serveEach({{.says = {"refused 1007 unknown request"}, .ends = true},
                         {.says = ring.granted(), .files = ring.files()}});
  const Lease lease(ring.server.path(), kLong, Transport::automatic, kRing, "x");
  EXPECT_EQ(ring.server.requests(),
            (Texts{"orvane 1 ring 1048576 label=x", "orvane 1 ring 1048576"}));
  EXPECT_EQ(lease.transport(), Transport::ring);
}

TEST(LeaseLabel, IsKeptWhereTheServerKnowsLabelsButNoRings) {
  FakeServer server;
  server.serveEach({{.says = {"refused 1007 a"}, .ends = true},
                    {.says = {"refused 1007 b"}, .ends = true},
                    {.says = {"lease q"}}});
  const Lease lease(server.path(), kLong, Transport::automatic, kRing, "x");
  EXPECT_EQ(server.requests(), (Texts{"orvane 1 ring 1048576 label=x", "orvane 1 ring 1048576",
                                      "orvane 1 lease label=x"}));
}

TEST(LeaseLabel, IsLeftOutAtLastWhereTheServerKnowsNeither) {
  FakeServer server;
  server.serveEach({{.says = {"refused 1007 a"}, .ends = true},
                    {.says = {"refused 1007 b"}, .ends = true},
                    {.says = {"refused 1007 c"}, .ends = true},
                    {.says = {"refused 1007 d"}}});
  EXPECT_TRUE(throwsErrno(1007, "d",
                          [&] { Lease(server.path(), kLong, Transport::automatic, kRing, "x"); }));
  EXPECT_EQ(server.requests(), (Texts{"orvane 1 ring 1048576 label=x", "orvane 1 ring 1048576",
                                      "orvane 1 lease label=x", "orvane 1 lease"}));
}

TEST(LeaseLabel, IsLeftOutForNoOtherReason) {
  for (const char* const refusal : {"refused 1005 x", "refused 1006 x", "refused 1008 x"}) {
    FakeServer server;
    server.serve({.says = {refusal}});
    EXPECT_ANY_THROW(Lease(server.path(), kLong, Transport::automatic, kRing, "x"));
    EXPECT_EQ(server.requests(), Texts{"orvane 1 ring 1048576 label=x"}) << refusal;
  }
}

TEST(LeaseLabel, DoesNotMakeAQueueOfARingThatWasAskedFor) {
  FakeServer server;
  server.serveEach({{.says = {"refused 1007 a"}, .ends = true}, {.says = {"refused 1007 b"}}});
  EXPECT_TRUE(
      throwsErrno(1007, "b", [&] { Lease(server.path(), kLong, Transport::ring, kRing, "x"); }));
  EXPECT_EQ(server.requests(), (Texts{"orvane 1 ring 1048576 label=x", "orvane 1 ring 1048576"}));
}

TEST(LeaseLabel, HasAtMost128Bytes) {
  EXPECT_TRUE(refusesLabel("A label has at most 128 bytes; this one has 129: shorten it",
                           std::string(129, 'x')));
  FakeServer server;
  server.serve({.says = {"lease q"}});
  const Lease lease(server.path(), kLong, Transport::queue, kDefaultRing, std::string(128, 'x'));
  EXPECT_EQ(server.request(), "orvane 1 lease label=" + std::string(128, 'x'));
}

TEST(LeaseLabel, HasNoControlCharacters) {
  for (const char c : {'\0', '\n', '\x1f', '\x7f'}) {
    EXPECT_TRUE(refusesLabel("A label has no control characters; this one has: remove them",
                             std::string("app.log") + c));
  }
}

}  // namespace
}  // namespace orvane::test
