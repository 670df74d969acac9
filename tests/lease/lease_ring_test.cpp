#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <stdexcept>

#include "orvane/lease.hpp"
#include "ring_server.hpp"
#include "support/throws.hpp"
#include "support/wire.hpp"
#include "texts.hpp"

namespace orvane::test {
namespace {

std::string notARing(const std::string& bytes) {
  return "The server's memory is not a ring of " + bytes +
         " bytes: client and server versions differ; install the same release of both";
}

// A file in memory of this size, without seals.
class UnsealedFile {
 public:
  explicit UnsealedFile(off_t size)
      : fd(memfd_create("unsealed", MFD_CLOEXEC | MFD_ALLOW_SEALING)) {
    if (ftruncate(fd, size) != 0) {
      throw std::runtime_error("no file in memory");
    }
  }
  ~UnsealedFile() { close(fd); }
  UnsealedFile(const UnsealedFile&) = delete;
  UnsealedFile& operator=(const UnsealedFile&) = delete;

  int get() const { return fd; }

 private:
  int fd;
};

TEST(LeaseRing, IsAskedForWithItsSize) {
  RingServer ring;
  ring.server.serve({.says = ring.granted(), .files = ring.files()});
  const auto lease = ring.lease();
  EXPECT_EQ(ring.server.request(), "orvane 1 ring 1048576");
  EXPECT_EQ(lease->transport(), Transport::ring);
  EXPECT_EQ(lease->queueName(), "r-1");
  EXPECT_NE(lease->ring(), nullptr);
  EXPECT_TRUE(lease->alive());
}

TEST(LeaseRing, HasEightMebibytesByDefault) {
  RingServer ring;
  ring.server.serve({.says = {"refused 1005 too many"}});
  EXPECT_TRUE(
      throwsErrno(1005, "too many", [&] { Lease(ring.server.path(), kLong, Transport::ring); }));
  EXPECT_EQ(ring.server.request(), "orvane 1 ring 8388608");
}

TEST(LeaseRing, HasTheMemoryThatTheServerSent) {
  RingServer ring;
  ring.server.serve({.says = ring.granted(), .files = ring.files()});
  const auto lease = ring.lease();
  RingWriter writer("s", lease->ring(), 7, 0, false);
  writer.stop(false);
  const RingReader::Batch batch = ring.reader.receive();
  ASSERT_NE(batch.data, nullptr);
  EXPECT_EQ(recordsOf(Bytes(batch.data, batch.data + batch.size)),
            (std::vector<Record>{{.type = 4, .seqNo = 1}}));
}

// A producer that sees only alive() must learn of it too.
TEST(LeaseRing, EndsTheLeaseWhenTheServerBreaksARule) {
  RingServer ring;
  const UnsealedFile servers(8192);
  char identity[24];
  ASSERT_EQ(pread(ring.reader.serversFile(), identity, sizeof identity, 0), 24);
  ASSERT_EQ(pwrite(servers.get(), identity, sizeof identity, 0), 24);
  ASSERT_EQ(fcntl(servers.get(), F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL), 0);
  ring.server.serve(
      {.says = ring.granted(), .files = {ring.reader.producersFile(), servers.get()}});
  const auto lease = ring.lease();
  RingWriter writer("s", lease->ring(), 1, 1, false);
  writer.open();
  EXPECT_TRUE(lease->alive());
  constexpr off_t kHead = 64;
  const std::uint64_t beyond = 4096;  // more than what was sent
  ASSERT_EQ(pwrite(servers.get(), &beyond, sizeof beyond, kHead), 8);
  EXPECT_TRUE(throwsErrno(901, "The server broke the rules of its ring: take another lease",
                          [&] { writer.close(); }));
  EXPECT_FALSE(lease->alive());
}

TEST(LeaseRing, KeepsNoFileOpenButItsSocket) {
  RingServer ring;
  ring.server.serve({.says = ring.granted(), .files = ring.files()});
  const std::size_t before = openFiles();
  const auto lease = ring.lease();
  ring.server.awaitScript();
  EXPECT_EQ(openFiles(), before + 2) << "its end and the server's";
}

TEST(LeaseRing, RejectsASizeThatNoRingHas) {
  const FakeServer server;
  for (const Transport transport : {Transport::ring, Transport::automatic}) {
    for (const std::uint64_t bytes : {0U, 5U, 1048575U, 3145728U, 536870912U}) {
      EXPECT_TRUE(throwsErrno(9,
                              "A ring has 1048576 to 268435456 bytes, a power of two; this one "
                              "would have " +
                                  std::to_string(bytes),
                              [&] { Lease(server.path(), kLong, transport, bytes); }));
    }
  }
}

TEST(LeaseRing, IsRejectedForItsTimeoutFirst) {
  const FakeServer server;
  EXPECT_TRUE(
      throwsErrno(9, "Invalid timeout, specified value 0 was less than minimum allowed value of 1",
                  [&] { Lease(server.path(), 0, Transport::ring, 5); }));
}

TEST(LeaseRing, IsRefusedWithAnotherNumberOfFiles) {
  for (const std::size_t count : {0U, 1U, 3U, 253U}) {
    RingServer ring;
    EXPECT_TRUE(ring.refuses(901, unexpected("ring r-1 1048576"),
                             std::vector<int>(count, ring.reader.producersFile())))
        << count;
  }
}

TEST(LeaseRing, IsRefusedWhenItsFilesAreInTheOtherOrder) {
  RingServer ring;
  EXPECT_TRUE(ring.refuses(901, notARing("1052672"),
                           {ring.reader.serversFile(), ring.reader.producersFile()}));
}

TEST(LeaseRing, IsRefusedWithAnotherSize) {
  RingServer ring;
  for (const char* const said : {"ring r-1 1048577", "ring r-1 2097152", "ring r-1 0"}) {
    RingServer other;
    EXPECT_TRUE(other.refuses(901, unexpected(said), other.files(), said));
  }
  const RingReader large(2 * kRing);
  EXPECT_TRUE(ring.refuses(901, notARing("1052672"), {large.producersFile(), large.serversFile()}));
}

TEST(LeaseRing, IsRefusedWithFilesThatMayShrink) {
  const UnsealedFile producers(1052672);
  const UnsealedFile servers(8192);
  {
    RingServer ring;
    EXPECT_TRUE(
        ring.refuses(901, notARing("1052672"), {producers.get(), ring.reader.serversFile()}));
  }
  RingServer ring;
  EXPECT_TRUE(ring.refuses(901, notARing("8192"), {ring.reader.producersFile(), servers.get()}));
}

TEST(LeaseRing, IsRefusedWhenAQueueIsGranted) {
  RingServer ring;
  EXPECT_TRUE(ring.refuses(901, unexpected("lease q"), ring.files(), "lease q"));
}

TEST(LeaseRing, IsRefusedToAQueuesLease) {
  RingServer ring;
  ring.server.serve({.says = ring.granted(), .files = ring.files()});
  EXPECT_TRUE(
      throwsErrno(901, unexpected("ring r-1 1048576"), [&] { ring.lease(Transport::queue); }));
  EXPECT_EQ(ring.server.request(), "orvane 1 lease");
}

TEST(LeaseFiles, AreClosedIfTheyComeWithAReceipt) {
  RingServer ring;
  ring.server.serve({.says = ring.granted(), .files = ring.files()});
  const auto lease = ring.lease();
  ring.server.awaitScript();
  const std::size_t before = openFiles();
  ring.server.say(kShortReceipt, ring.files());
  EXPECT_EQ(textOf(lease->receipt(kLong)), kShortReceipt);
  EXPECT_EQ(openFiles(), before);
  ring.server.say("failed 1003 disk full", std::vector<int>(253, ring.reader.serversFile()));
  EXPECT_TRUE(throwsErrno(1003, "disk full", [&] { lease->receipt(kLong); }));
  EXPECT_EQ(openFiles(), before);
  ring.server.say("", ring.files());
  EXPECT_TRUE(throwsErrno(901,
                          "The server ended the lease without a reason: it died or was stopped",
                          [&] { lease->receipt(kLong); }));
  EXPECT_EQ(openFiles(), before);
}

TEST(LeaseFiles, AreClosedIfTheyComeWithAnUnexpectedPacket) {
  RingServer ring;
  ring.server.serve({.says = ring.granted(), .files = ring.files()});
  const auto lease = ring.lease();
  ring.server.awaitScript();
  const std::size_t before = openFiles();
  ring.server.say("nonsense", ring.files());
  EXPECT_TRUE(throwsErrno(901, unexpected("nonsense"), [&] { lease->receipt(kLong); }));
  EXPECT_EQ(openFiles(), before);
}

TEST(LeaseFiles, AreClosedIfTheyComeWithAQueue) {
  RingServer ring;
  ring.server.serve({.says = {"lease q"}, .files = ring.files()});
  const std::size_t before = openFiles();
  const auto lease = ring.lease(Transport::queue);
  ring.server.awaitScript();
  EXPECT_EQ(openFiles(), before + 2);
}

}  // namespace
}  // namespace orvane::test
