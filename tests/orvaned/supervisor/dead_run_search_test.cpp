// What a dead server's leases left, and the next server, whichever comes first, that removes it.

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <optional>
#include <vector>

#include "shm/lock_file.hpp"
#include "supervisor/dead_run_search.hpp"
#include "support/lease_fixture.hpp"

namespace orvane::test {
namespace {

namespace fs = std::filesystem;

constexpr char kDied[] = "the server died: send again what it did not acknowledge";

class LeaseRecoveryTest : public LeaseTest {
 protected:
  // The server dies, and everything that it forked.
  void die() {
    server->killAll();
    EXPECT_EQ(server->wait(), -SIGKILL);
  }
  static std::string runOf(const std::string& queue) { return queue.substr(0, queue.rfind('_')); }
};

TEST_F(LeaseRecoveryTest, APairIsRemovedAndItsProducerToldBefore) {
  start();
  LeasedProducer producer(socket);
  EXPECT_EQ(producer.queues.ask({kOpen, kHello}), (Answer{0, ""}));
  die();
  EXPECT_EQ(producer.client.next(), kEnd);
  EXPECT_EQ(sharedMemoryOf(producer.name), wholePair(producer.name));
  start();
  EXPECT_EQ(producer.queues.answer(), (Answer{1008, kDied}));
  EXPECT_TRUE(eventually([&] { return sharedMemoryOf(producer.name).empty(); }));
  EXPECT_TRUE(eventually([&] { return sharedMemoryOf(runOf(producer.name)).empty(); }));
}

// The unread responses do not keep the notice from a producer that reads them later.
TEST_F(LeaseRecoveryTest, OneAnswerGivesWayWhenThereIsNoRoomForTheNotice) {
  start();
  LeasedProducer producer(socket);
  producer.queues.send({kOpen});
  constexpr std::uint64_t kBatches = 12;  // ten answers fit
  for (std::uint64_t n = 0; n < kBatches; ++n) {
    Record hello = kHello;
    hello.seqNo += n;
    producer.queues.send({hello});
  }
  ASSERT_TRUE(eventually([&] {
    const std::string path = folderOf(producer.name) + "/segment-000000.part";
    return fs::exists(path) && fs::file_size(path) == 5 * kBatches;
  }));
  die();
  start();
  EXPECT_TRUE(eventually([&] { return sharedMemoryOf(producer.name).empty(); }));
  EXPECT_EQ(producer.queues.answer(), (Answer{1008, kDied}));
  EXPECT_EQ(producer.queues.answer(), (Answer{0, ""}));
}

TEST_F(LeaseRecoveryTest, WhatIsLeftOfAPairIsRemovedAndNothingElse) {
  // As a server left them that was killed while it made or removed a pair.
  const std::string run = "orvane-20200101T000000-" + std::to_string(getpid());
  const Words left = {"." + run + "_0.new", run + "_1Response", "." + run + "_2Response.new",
                      run + "_3", "." + run + "_8.stats"};
  const Words others = {run + "_4.old", run + "_x", "my" + run + "_5", run + "6_7"};
  for (const Words& names : {left, others}) {
    for (const std::string& name : names) {
      writeFile("/dev/shm/" + name, "");
    }
  }
  writeFile("/dev/shm/." + run + ".lock", "1\n");
  start();
  for (const std::string& name : left) {
    EXPECT_TRUE(eventually([&] { return !fs::exists("/dev/shm/" + name); })) << name;
  }
  EXPECT_TRUE(eventually([&] { return !fs::exists("/dev/shm/." + run + ".lock"); }));
  for (const std::string& name : others) {
    EXPECT_TRUE(fs::remove("/dev/shm/" + name)) << name;
  }
}

// A server that was killed, whose worker lives on for a while: it still makes queues, and uses
// them.
TEST_F(LeaseRecoveryTest, WhatADyingServerHasIsLeftAloneUntilItIsDead) {
  const std::string run = "orvane-20200101T000003-" + std::to_string(getpid());
  const std::string first = "/dev/shm/." + run + "_0.new";
  const std::string later = "/dev/shm/." + run + "_1.new";
  writeFile(first, "");
  int pids[2] = {};
  ASSERT_EQ(pipe(pids), 0);
  const pid_t dead = fork();
  if (dead == 0) {
    const tool::LockFile lock(tool::lockPathOf(run));
    const pid_t worker = fork();
    if (worker == 0) {
      pause();
    }
    _exit(::write(pids[1], &worker, sizeof worker) == sizeof worker ? 0 : 1);
  }
  pid_t worker = 0;
  ASSERT_EQ(read(pids[0], &worker, sizeof worker), static_cast<ssize_t>(sizeof worker));
  ASSERT_EQ(waitpid(dead, nullptr, 0), dead);

  start();
  EXPECT_TRUE(LeaseClient(socket).ask().starts_with("orvane-"));  // it has looked by now
  EXPECT_TRUE(fs::exists(first));
  EXPECT_TRUE(fs::exists(tool::lockPathOf(run)));
  writeFile(later, "");
  kill(worker, SIGKILL);
  for (const std::string& path : {first, later, tool::lockPathOf(run)}) {
    EXPECT_TRUE(eventually([&] { return !fs::exists(path); })) << path;
  }
  for (const int end : pids) {
    close(end);
  }
}

TEST_F(LeaseRecoveryTest, AnUnfinishedStreamIsFinished) {
  start();
  LeasedProducer producer(socket);
  EXPECT_EQ(producer.queues.ask({kOpen, kHello, kEndOfSegment}), (Answer{0, ""}));
  const std::string stream = streamOf(producer.name);
  EXPECT_TRUE(eventually([&] { return fs::exists(folderOf(producer.name) + "/segment-000000"); }));
  die();
  EXPECT_FALSE(fs::exists(folderOf(producer.name) + "/manifest"));
  start();
  EXPECT_EQ(endingOf(producer.name), "end=cut-off\nreason=the server died\n");
  EXPECT_EQ(readFile(folderOf(producer.name) + "/segment-000000"), "hello");
  EXPECT_TRUE(server->says(" info 0 recovery::recover: queue " + producer.name +
                           ": finished what a dead server left: receipt stream=" + stream +
                           " records=1 bytes=5 segments=1 end=cut-off\n"));
}

TEST_F(LeaseRecoveryTest, ALivingServersStreamsAndPairsAreLeftAlone) {
  start();
  LeasedProducer dead(socket);
  EXPECT_EQ(dead.queues.ask({kOpen, kHello}), (Answer{0, ""}));
  die();

  const std::string otherSocket = folder.path() + "/other";
  ServerProcess other({"--socket", otherSocket, "--store", store.path(), "--sync", "none"});
  ASSERT_TRUE(other.says("serving leases at "));
  LeasedProducer living(otherSocket);
  EXPECT_EQ(living.queues.ask({kOpen, kHello}), (Answer{0, ""}));
  EXPECT_EQ(endingOf(dead.name), "end=cut-off\nreason=the server died\n");

  start();
  LeasedProducer second(socket);
  EXPECT_EQ(second.queues.ask({kOpen, kClose}).status, 0);
  server->signal(SIGTERM);
  EXPECT_EQ(server->wait(), 0);
  EXPECT_EQ(server->output().find("what a dead server left"), std::string::npos)
      << server->output();
  EXPECT_EQ(sharedMemoryOf(living.name), wholePair(living.name));
  EXPECT_EQ(namesIn(folderOf(living.name)), (Words{"manifest.part", "segment-000000.part"}));
  EXPECT_EQ(living.queues.ask({kClose}).status, 0);
  EXPECT_EQ(living.client.next(),
            "receipt stream=" + streamOf(living.name) + " records=1 bytes=5 segments=1 end=closed");
}

// Its workers see that it died, and end as they would have at its word.
TEST_F(LeaseRecoveryTest, AServerThatIsKilledAloneIsSurvivedByItsWorkersOrderlyEnd) {
  start();
  LeasedProducer producer(socket);
  EXPECT_EQ(producer.queues.ask({kOpen, kHello}), (Answer{0, ""}));
  server->signal(SIGKILL);
  EXPECT_EQ(producer.client.next(), "failed 1004 the server was stopped");
  EXPECT_EQ(producer.client.next(), kEnd);
  EXPECT_EQ(producer.queues.answer(), (Answer{1004, kStoppedNotice}));
  EXPECT_EQ(server->wait(), -SIGKILL);
  EXPECT_EQ(sharedMemoryOf(producer.name), Words{});
  EXPECT_EQ(endingOf(producer.name), "end=cut-off\nreason=the server was stopped\n");
  start();
  EXPECT_TRUE(eventually([&] { return sharedMemoryOf(runOf(producer.name)).empty(); }));
}

// Of the first files, as many as a test may have open.
void keepOnly(const std::vector<int>& files) {
  constexpr int kFiles = 1024;
  for (int fd = STDERR_FILENO + 1; fd < kFiles; ++fd) {
    if (std::find(files.begin(), files.end(), fd) == files.end()) {
      close(fd);
    }
  }
}

// A search that has found a dead run's pair, and whose supervisor dies before it removed the pair.
// Returns false if another server took the run, as any server may.
bool searchIsLeftAlone(const std::string& run) {
  writeFile("/dev/shm/." + run + "_0.new", "");
  writeFile(tool::lockPathOf(run), "1\n");
  const orvaned::Options options;
  const orvaned::ProcessContext context{
      options, getpid(), [](const std::vector<int>& files, orvaned::LogAccess) { keepOnly(files); },
      [](const std::string&, orvaned::BrokerProcess, bool) {}};
  orvaned::DeadRunSearch search(context);
  std::optional<orvaned::DeadRunSearch::DeadPair> found;
  EXPECT_TRUE(eventually([&] {
    found = search.next();
    return search.isComplete() || (found && found->queue == run + "_0");
  }));
  const bool isOurs = !search.isComplete();
  search.release();
  EXPECT_TRUE(eventually([&] { return search.isOver(); }));
  return isOurs;
}

// Without its lock file no later server would look for the pair.
TEST(DeadRunSearchTest, TheLockStaysWhenTheSupervisorDiesBeforeThePairIsRemoved) {
  const std::string prefix = "orvane-20200101T00000";
  EXPECT_TRUE(eventually([&, n = 0]() mutable {
    const std::string run = prefix + std::to_string(4 + n++ % 6) + "-" + std::to_string(getpid());
    const bool stays = searchIsLeftAlone(run) && fs::exists(tool::lockPathOf(run));
    fs::remove("/dev/shm/." + run + "_0.new");
    fs::remove(tool::lockPathOf(run));
    return stays;
  }));
}

}  // namespace
}  // namespace orvane::test
