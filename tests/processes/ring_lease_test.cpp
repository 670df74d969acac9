// A producer with a ring, and the real server: what is stored, and what either side learns of the
// other's end.

#include <orvane/orvane.hpp>

#include <csignal>
#include <filesystem>
#include <optional>

#include "support/child.hpp"
#include "support/lease_fixture.hpp"
#include "support/manifest.hpp"
#include "support/server.hpp"
#include "support/throws.hpp"
#include "support/waiting_thread.hpp"

namespace orvane::test {
namespace {

constexpr unsigned int kLong = 60;  // seconds
constexpr char kEndedLease[] = "The server ended the lease: it died or was stopped";

class RingLease : public LeaseTest {
 protected:
  RingLease() { start(); }

  Lease newLease() const { return {socket, kLong, Transport::ring, kSmallestRing}; }

  static RingWriter writerOf(const Lease& lease, unsigned int timeout = kLong) {
    return {"stream", lease.ring(), timeout, timeout, false};
  }

  static void write(ChannelWriter& writer, const std::string& data) {
    writer.writeSegment(reinterpret_cast<const unsigned char*>(data.data()), data.size());
  }

  // A frame of its own, because two of them do not fit into a usual frame.
  static std::string record(char content) { return std::string(131072, content); }

  // Writes such records until there is no room.
  static void fill(ChannelWriter& writer) {
    for (;;) {
      write(writer, record('x'));
    }
  }

  // Its manifest is there when the first batch is stored.
  void awaitStream(const std::string& queue) const {
    ASSERT_TRUE(eventually([&] { return hasStream(queue); }));
  }

  static std::string receiptOf(Lease& lease) { return textOf(lease.receipt(kLong)); }
};

TEST_F(RingLease, StoresEachByteOfAStreamThatIsLargerThanTheRing) {
  Lease lease = newLease();
  EXPECT_EQ(lease.transport(), Transport::ring);
  RingWriter writer = writerOf(lease);
  std::string sent;
  std::size_t records = 0;
  writer.open();
  while (sent.size() < 6 * kSmallestRing) {
    for (const std::size_t size :
         {1U, 15U, 16U, 17U, 63U, 64U, 65U, 1000U, 4095U, 4096U, 65537U, 131071U, 131072U}) {
      const std::string data(size, static_cast<char>('a' + records++ % 26));
      write(writer, data);
      sent += data;
    }
  }
  writer.endSegment();
  writer.close();
  const std::string stored = readFile(folderOf(lease.queueName()) + "/segment-000000");
  EXPECT_TRUE(stored == sent) << stored.size() << " bytes of " << sent.size();
  EXPECT_EQ(receiptOf(lease), "receipt stream=" + streamOf(lease.queueName()) +
                                  " records=" + std::to_string(records) + " bytes=" +
                                  std::to_string(sent.size()) + " segments=1 end=closed");
}

TEST_F(RingLease, IsLoggedAndLeavesNothingInSharedMemory) {
  std::optional<Lease> lease(std::in_place, socket, kLong, Transport::ring, kSmallestRing);
  const std::string name = lease->queueName();
  RingWriter writer = writerOf(*lease);
  writer.open();
  writer.close();
  EXPECT_TRUE(server->says("serving ring " + name + " for user " + std::to_string(geteuid()) +
                           ", process " + std::to_string(getpid()) +
                           " (1048576 bytes), storing into " + store.path() + "\n"))
      << server->output();
  const std::string run = name.substr(0, name.rfind('_'));
  EXPECT_EQ(sharedMemoryNamed(run), Words{});
  lease.reset();
  EXPECT_TRUE(server->says("stopped serving queue " + name + ": its producer died or left\n"));
  EXPECT_EQ(sharedMemoryNamed(run), Words{});
}

TEST_F(RingLease, OfADeadServerLeavesItsSocketAndAStreamThatTheNextOneFinishes) {
  const Lease lease = newLease();
  const std::string& name = lease.queueName();
  RingWriter writer = writerOf(lease, 1);
  writer.open();
  write(writer, record('x'));
  write(writer, record('y'));  // hands the first one over
  awaitStream(name);
  const std::string path = folderOf(name) + "/segment-000000.part";
  ASSERT_TRUE(eventually([&] {
    return std::filesystem::exists(path) && std::filesystem::file_size(path) == record('x').size();
  }));
  server->killAll();
  EXPECT_EQ(server->wait(), -SIGKILL);
  EXPECT_EQ(sharedMemoryNamed(name.substr(0, name.rfind('_'))), Words{});
  EXPECT_EQ(namesIn(folder.path()), (Words{"socket", "socket.lock"}));
  EXPECT_EQ(namesIn(folderOf(name)), (Words{"manifest.part", "segment-000000.part"}));
  start();
  EXPECT_EQ(endingOf(name), "end=cut-off\nreason=the server died\n");
}

// Another server does not take its stream, as long as one of its processes may write into it.
TEST_F(RingLease, OfADeadServerIsInUseUntilItsWorkerIsDead) {
  const Lease lease = newLease();
  const std::string& name = lease.queueName();
  RingWriter writer = writerOf(lease, 1);
  writer.open();
  write(writer, "x");
  const pid_t worker = server->workerOfRing();
  awaitStream(name);
  kill(worker, SIGSTOP);
  server->signal(SIGSTOP);  // its end would let the worker continue
  for (const pid_t child : server->children()) {
    kill(child, child == worker ? 0 : SIGKILL);
  }
  const Words other = {"--socket", folder.path() + "/other", "--store", store.path()};
  {
    ServerProcess first(other);
    EXPECT_TRUE(first.says("serving leases at "));
    EXPECT_TRUE(LeaseClient(folder.path() + "/other").ask().starts_with("orvane-"));
    EXPECT_FALSE(std::filesystem::exists(folderOf(name) + "/manifest"));
  }
  server->killAll();
  EXPECT_EQ(server->wait(), -SIGKILL);
  const ServerProcess second(other);
  EXPECT_EQ(endingOf(name), "end=cut-off\nreason=the server died\n");
}

TEST_F(RingLease, NeedsNoSharedMemory) {
  start({"--shm-limit", "1"});
  EXPECT_TRUE(LeaseClient(socket).ask().starts_with("refused 1005 the leases would take "));
  const Lease lease = newLease();
  RingWriter writer = writerOf(lease);
  writer.open();
  EXPECT_NO_THROW(writer.close());
}

TEST_F(RingLease, HasOneStreamAfterTheOther) {
  Lease lease = newLease();
  for (const char* const content : {"first", "second"}) {
    const auto writer = makeWriter("stream", lease, kLong, kLong);
    for (int stream = 0; stream < 2; ++stream) {
      writer->open();
      write(*writer, content);
      writer->endSegment();
      writer->close();
    }
  }
  for (const int bytes : {5, 5, 6, 6}) {
    const Receipt receipt = lease.receipt(kLong);
    const std::string path = store.path() + "/" + socketName() + "-" + receipt.stream;
    EXPECT_EQ(receipt.bytes, static_cast<std::uint64_t>(bytes));
    EXPECT_EQ(readFile(path + "/segment-000000"), bytes == 5 ? "first" : "second");
  }
}

TEST_F(RingLease, StoredAStreamWhenCloseReturns) {
  const Lease lease = newLease();
  RingWriter writer = writerOf(lease);
  writer.open();
  write(writer, "hello");
  writer.close();
  EXPECT_TRUE(std::filesystem::exists(folderOf(lease.queueName()) + "/manifest"));
}

TEST_F(RingLease, GivesAReceiptForAStoppedStream) {
  Lease lease = newLease();
  RingWriter writer = writerOf(lease);
  writer.open();
  write(writer, "hello");
  writer.stop(false);
  const std::string receipt = receiptOf(lease);
  EXPECT_EQ(receipt, "receipt stream=" + streamOf(lease.queueName()) +
                         " records=1 bytes=5 segments=1 end=stopped");
}

TEST_F(RingLease, ThrowsTheServersErrorAndReportsTheStreamAsFailed) {
  Lease lease = newLease();
  RingWriter writer = writerOf(lease);
  std::filesystem::remove(store.path());
  try {
    writer.open();
    writer.close();
    ADD_FAILURE() << "the stream was stored";
  } catch (const Ox_ErrnoException& e) {
    EXPECT_EQ(e.status(), 1003);
  }
  EXPECT_THROW(lease.receipt(kLong), Ox_ErrnoException);
  std::filesystem::create_directory(store.path());
  RingWriter next = writerOf(lease);
  next.open();
  next.close();
  EXPECT_EQ(receiptOf(lease), "receipt stream=" + streamOf(lease.queueName()) +
                                  " records=0 bytes=0 segments=0 end=closed");
}

TEST_F(RingLease, StoresWhatAKilledProducerHandedOver) {
  Child child([this] {
    const Lease lease = newLease();
    RingWriter writer = writerOf(lease);
    writer.open();
    for (const char content : {'a', 'b', 'c'}) {
      write(writer, record(content));
    }
    raise(SIGSTOP);
  });
  ASSERT_EQ(child.nextChange(), "stopped");
  child.signal(SIGKILL);
  ASSERT_EQ(child.nextChange(), "signal 9");
  ASSERT_TRUE(eventually([this] {
    const std::vector<std::string> names = namesIn(store.path());
    return names.size() == 1 && names.front().front() != '.';
  }));
  const std::string stream = store.path() + "/" + namesIn(store.path()).front();
  ASSERT_TRUE(eventually([&] { return std::filesystem::exists(stream + "/manifest"); }));
  EXPECT_TRUE(plainManifest(readFile(stream + "/manifest"))
                  .ends_with("\nend=cut-off\nreason=its producer died or left\n"));
  EXPECT_EQ(readFile(stream + "/segment-000000.part"), record('a') + record('b'))
      << "the third record is in a frame that was not complete";
}

TEST_F(RingLease, OfAKilledWorkerFailsTheWriterAndTheStreamIsFinished) {
  Lease lease = newLease();
  RingWriter writer = writerOf(lease);
  writer.open();
  const pid_t worker = server->workerOfRing();
  Lease other = newLease();
  RingWriter othersWriter = writerOf(other);
  othersWriter.open();
  ASSERT_TRUE(eventually([&] { return hasStream(lease.queueName()); }));
  kill(worker, SIGKILL);
  const Stopwatch watch;
  EXPECT_TRUE(throwsErrno(901, kEndedLease, [&] { fill(writer); }));
  EXPECT_LT(watch.seconds(), kLong / 2);
  EXPECT_TRUE(throwsErrno(901, kEndedLease, [&] { writer.close(); }));
  EXPECT_TRUE(throwsErrno(1008, "what served the queue died", [&] { lease.receipt(kLong); }));
  EXPECT_FALSE(lease.alive());
  EXPECT_EQ(endingOf(lease.queueName()), "end=cut-off\nreason=its worker died\n");
  othersWriter.close();
  EXPECT_EQ(receiptOf(other), "receipt stream=" + streamOf(other.queueName()) +
                                  " records=0 bytes=0 segments=0 end=closed");
}

TEST_F(RingLease, OfAWorkerThatIsKilledWhileTheWriterWaitsFailsTheWriter) {
  const Lease lease = newLease();
  RingWriter writer = writerOf(lease);
  writer.open();
  const pid_t worker = server->workerOfRing();
  stop(worker);
  testing::AssertionResult failed = testing::AssertionFailure();
  WaitingThread waiting([&] { failed = throwsErrno(901, kEndedLease, [&] { fill(writer); }); });
  waiting.awaitSleep();
  const Stopwatch watch;
  kill(worker, SIGKILL);
  EXPECT_TRUE(waiting.returns());
  EXPECT_TRUE(failed);
  EXPECT_LT(watch.seconds(), kLong / 2);
}

TEST_F(RingLease, OfAStoppedWorkerTimesOutAndGoesOnWithIt) {
  Lease lease = newLease();
  RingWriter writer = writerOf(lease, 1);
  writer.open();
  const pid_t worker = server->workerOfRing();
  stop(worker);
  std::uint64_t records = 0;
  const Stopwatch watch;
  EXPECT_TRUE(
      throwsErrno(15, "Timed out after waiting 1s to send data to orvaned on stream stream", [&] {
        for (;; ++records) {
          write(writer, record('x'));
        }
      }));
  EXPECT_GE(watch.seconds(), 1);
  EXPECT_LT(watch.seconds(), kLong / 2);
  EXPECT_EQ(records, 7U) << "eight do not fit with their headers";
  EXPECT_TRUE(throwsErrno(15,
                          "Timed out after waiting 1s for an answer of orvaned on stream stream",
                          [&] { writer.close(); }));
  kill(worker, SIGCONT);
  ASSERT_TRUE(eventually([&] {
    try {
      writer.close();
      return true;
    } catch (const Ox_ErrnoException& e) {
      return e.status() != 15;
    }
  }));
  const Receipt receipt = lease.receipt(kLong);
  EXPECT_EQ(receipt.bytes, records * 131072);
  EXPECT_EQ(receipt.end, StreamEnd::closed);
}

TEST_F(RingLease, OfAStoppedServerStoresWhatWasHandedOver) {
  Lease lease = newLease();
  RingWriter writer = writerOf(lease);
  writer.open();
  const pid_t worker = server->workerOfRing();
  stop(worker);
  write(writer, record('a'));
  write(writer, record('b'));
  server->signal(SIGTERM);
  ASSERT_TRUE(eventually([&] { return !std::filesystem::exists(socket); }));
  kill(worker, SIGCONT);
  EXPECT_TRUE(throwsErrno(1004, "the server was stopped", [&] { lease.receipt(kLong); }));
  EXPECT_EQ(server->wait(), 0);
  EXPECT_FALSE(lease.alive());
  const std::string queue = lease.queueName();
  EXPECT_EQ(endingOf(queue), "end=cut-off\nreason=the server was stopped\n");
  EXPECT_EQ(readFile(folderOf(queue) + "/segment-000000.part"), record('a'));
  try {
    writer.close();
    ADD_FAILURE() << "close() returned";
  } catch (const Ox_ErrnoException& e) {
    EXPECT_TRUE(e.status() == 1004 || e.status() == 901) << e.status();
  }
}

TEST_F(RingLease, KeepsTheReceiptsOfAServerThatHasEnded) {
  Lease lease = newLease();
  RingWriter writer = writerOf(lease);
  writer.open();
  writer.close();
  server->signal(SIGTERM);
  EXPECT_EQ(server->wait(), 0);
  EXPECT_EQ(receiptOf(lease), "receipt stream=" + streamOf(lease.queueName()) +
                                  " records=0 bytes=0 segments=0 end=closed");
}

}  // namespace
}  // namespace orvane::test
