// A whole server, whose worker a hostile producer has taken over: what can that worker do, and what
// becomes of it and of the others?

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <new>
#include <orvane/orvane.hpp>
#include <system_error>

#include "store_format/stream_id.hpp"
#include "support/break_in/taken_over.hpp"
#include "support/confined_child.hpp"
#include "support/lease_fixture.hpp"
#include "support/limits.hpp"

namespace orvane::test {
namespace {

namespace fs = std::filesystem;

using break_in::Attack;
using break_in::kNoResult;
using break_in::Shared;

constexpr char kWorkerDied[] = "failed 1008 what served the queue died";

// The file that the server's processes and this one have mapped.
class SharedFile {
 public:
  explicit SharedFile(const std::string& path) {
    const int file = open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (ftruncate(file, sizeof(Shared)) != 0 || fchmod(file, 0666) != 0) {
      throw std::system_error(errno, std::generic_category(), path);
    }
    void* memory = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    close(file);
    shared = new (memory) Shared{};
  }
  ~SharedFile() { munmap(shared, sizeof(Shared)); }
  SharedFile(const SharedFile&) = delete;
  SharedFile& operator=(const SharedFile&) = delete;

  Shared* operator->() const { return shared; }

 private:
  Shared* shared;
};

void put(char (&field)[256], const std::string& text) {
  text.copy(field, sizeof(field) - 1);
}

class TakenOverWorker : public LeaseTest {
 protected:
  void startServer(Rights rights, const Words& more = {}) {
    for (const std::string& path : {folder.path(), store.path()}) {
      if (geteuid() == 0 && rights != Rights::root) {
        ASSERT_EQ(chown(path.c_str(), kServerUser, kServerUser), 0);
      }
    }
    Words words = {"--mode", "0666"};
    if (rights == Rights::root && geteuid() == 0) {
      words.insert(words.end(), {"--worker-user", "nobody"});
    }
    words.insert(words.end(), more.begin(), more.end());
    ServerProcess::Setup setup;
    setup.program = TAKEN_OVER_SERVER_PATH;
    setup.prepare = [this, rights] {
      setenv("ORVANED_TEST_ATTACK", attackPath.c_str(), 1);
      takeOn(rights);
    };
    server = std::make_unique<ServerProcess>(arguments(words), setup);
    ASSERT_TRUE(server->says("serving leases at ")) << server->output();
  }

  // A producer that the server can give a queue to: one of the server's user, unless it has the
  // rights.
  LeasedProducer producerFor(Rights rights) const {
    if (geteuid() != 0 || rights != Rights::user) {
      return LeasedProducer(socket);
    }
    const WithoutPrivileges asUser;
    return LeasedProducer(socket);
  }

  // Takes the producer's worker over.
  void attackWith(const std::string& name, Producer& producer) {
    arm(name);
    producer.send({kOpen, kHello});
  }

  // The next worker that takes a message is taken over.
  void arm(const std::string& name) {
    std::memset(attack->name, 0, sizeof(attack->name));
    name.copy(attack->name, sizeof(attack->name) - 1);
    attack->result = kNoResult;
    attack->armed = true;
  }

  static bool hasEnded(pid_t worker) {
    return worker == 0 || eventually([worker] { return stateOf(worker) == '\0'; });
  }

  const std::string attackPath = folder.path() + "/attack";
  const SharedFile attack{attackPath};
};

std::string contentOf(const std::string& path) {
  return fs::exists(path) ? readFile(path) : "nothing";
}

class BreakOut : public TakenOverWorker, public testing::WithParamInterface<Rights> {
 protected:
  void expectNothingReached(const Words& options);
};

void BreakOut::expectNothingReached(const Words& options) {
  startServer(GetParam(), options);
  LeasedProducer victim = producerFor(GetParam());
  EXPECT_EQ(victim.queues.ask({kOpen, kHello, kEndOfSegment}), (Answer{0, ""}));
  const std::string stored = folderOf(victim.name) + "/segment-000000";
  EXPECT_TRUE(eventually([&] { return fs::exists(stored); }));
  put(attack->otherStream, stored);
  put(attack->store, store.path());
  put(attack->otherQueue, "/dev/shm/" + victim.name);
  put(attack->serverSocket, socket);
  attack->other = server->workerOf(victim.name);
  attack->supervisor = server->process();
  const Words before = namesIn(store.path());
  pid_t last = 0;
  for (const Attack& one : break_in::attacks()) {
    EXPECT_TRUE(hasEnded(last)) << "it could take the next attack over";
    LeasedProducer hostile = producerFor(GetParam());
    last = server->workerOf(hostile.name);
    attackWith(one.name, hostile.queues);
    // It comes back with an error, or its worker ends.
    const bool ended = eventually([&] {
      return attack->result != kNoResult || stateOf(attack->other) == '\0' ||
             server->output().find("signal") != std::string::npos ||
             sharedMemoryOf(hostile.name).empty();
    });
    EXPECT_TRUE(ended) << one.name;
    EXPECT_NE(attack->result, 0) << one.name;
    EXPECT_EQ(contentOf(stored), "hello") << one.name;
    EXPECT_NE(stateOf(attack->other), '\0') << one.name;
    ASSERT_TRUE(server->isRunning()) << one.name;
  }
  EXPECT_EQ(victim.queues.ask({{.type = 3, .seqNo = 4}}).status, 0);
  for (const std::string& name : namesIn(store.path())) {
    const bool isStream = name.starts_with(tool::nameOfSocket(socket) + "-");
    EXPECT_TRUE(isStream || std::find(before.begin(), before.end(), name) != before.end()) << name;
  }
}

TEST_P(BreakOut, ReachesNothingOutsideTheWorker) {
  expectNothingReached({});
}

#ifdef ORVANE_HAS_ZSTD
TEST_P(BreakOut, ReachesNothingOutsideTheWorkerThatCompresses) {
  expectNothingReached({"--compress", "zstd"});
}
#endif

INSTANTIATE_TEST_SUITE_P(As, BreakOut, testing::ValuesIn(rightsHere()),
                         [](const auto& test) { return nameOf(test.param); });

// It got its files and its memory before it confined itself.
TEST_P(BreakOut, ReachesNothingOutsideTheWorkerOfARing) {
  startServer(GetParam());
  LeasedProducer victim = producerFor(GetParam());
  EXPECT_EQ(victim.queues.ask({kOpen, kHello, kEndOfSegment}), (Answer{0, ""}));
  const std::string stored = folderOf(victim.name) + "/segment-000000";
  EXPECT_TRUE(eventually([&] { return fs::exists(stored); }));
  put(attack->otherStream, stored);
  put(attack->store, store.path());
  put(attack->otherQueue, "/dev/shm/" + victim.name);
  put(attack->serverSocket, socket);
  attack->other = server->workerOf(victim.name);
  attack->supervisor = server->process();
  pid_t last = 0;
  for (const Attack& one : break_in::attacks()) {
    EXPECT_TRUE(hasEnded(last)) << "it could take the next attack over";
    const Lease lease(socket, 60, Transport::ring, kSmallestRing);
    last = server->workerOfRing();
    RingWriter hostile("stream", lease.ring(), 60, 60, false);
    arm(one.name);
    hostile.open();
    EXPECT_TRUE(eventually([&] { return attack->result != kNoResult || !lease.alive(); }))
        << one.name;
    EXPECT_NE(attack->result, 0) << one.name;
    EXPECT_EQ(contentOf(stored), "hello") << one.name;
    EXPECT_NE(stateOf(attack->other), '\0') << one.name;
    ASSERT_TRUE(server->isRunning()) << one.name;
  }
  EXPECT_EQ(victim.queues.ask({{.type = 3, .seqNo = 4}}).status, 0);
}

TEST_F(TakenOverWorker, IsEndedByACallThatItMayNotMakeAndTheLogNamesTheCall) {
  startServer(Rights::root);
  LeasedProducer hostile(socket);
  EXPECT_EQ(hostile.queues.ask({kOpen}), (Answer{0, ""}));
  attackWith("Forks", hostile.queues);
  EXPECT_EQ(hostile.client.next(), kWorkerDied);
  EXPECT_TRUE(
      server->says("its worker was killed by signal 31: it made the system call clone, "
                   "which it may not\n"))
      << server->output();
  EXPECT_EQ(endingOf(hostile.name), "end=cut-off\nreason=its worker died\n");
}

TEST_F(TakenOverWorker, ThatSpinsIsKilled) {
  startServer(Rights::root);
  LeasedProducer other(socket);
  LeasedProducer hostile(socket);
  attackWith("spin", hostile.queues);
  EXPECT_EQ(hostile.client.next(), kWorkerDied);
  EXPECT_TRUE(server->says(" error 1008 pair::step: queue " + hostile.name +
                           ": its worker uses the processor without taking a message and is "
                           "killed\n"));
  EXPECT_EQ(other.queues.ask({kOpen, kHello, kClose}).status, 0);
}

class WorkersException : public TakenOverWorker, public testing::WithParamInterface<const char*> {};

// As a crash by a signal does.
TEST_P(WorkersException, EndsItsStreamWithAManifestAndTellsItsLease) {
  startServer(Rights::root);
  LeasedProducer producer(socket);
  EXPECT_EQ(producer.queues.ask({kOpen, kHello, kEndOfSegment}), (Answer{0, ""}));
  attackWith(GetParam(), producer.queues);
  EXPECT_EQ(producer.client.next(), kWorkerDied);
  EXPECT_EQ(producer.client.next(), kEnd);
  EXPECT_EQ(producer.queues.answer(),
            (Answer{1008, "what served the queue died: send again what it did not acknowledge"}));
  EXPECT_TRUE(server->says(" error 1008 pair::workerEnded: queue " + producer.name +
                           ": its worker was ended by an exception\n"));
  EXPECT_EQ(endingOf(producer.name), "end=cut-off\nreason=its worker died\n");
  EXPECT_EQ(contentOf(folderOf(producer.name) + "/segment-000000"), "hello");
}

INSTANTIATE_TEST_SUITE_P(Of, WorkersException, testing::Values("bad_alloc", "unknown exception"));

TEST_F(TakenOverWorker, IsServedOnWhileTheSupervisorHasNoMemory) {
  startServer(Rights::root);
  LeasedProducer producer(socket);
  attack->supervisor = server->process();
  attack->memoryIsOut = true;
  for (int i = 0; i < 20; ++i) {
    const LeaseClient client(socket);
    client.send("orvane 1 lease");
    const std::string answer = client.next();
    EXPECT_TRUE(answer == kEnd || answer.starts_with("refused ")) << answer;
  }
  EXPECT_EQ(producer.queues.ask({kOpen, kHello}), (Answer{0, ""}));
  attack->memoryIsOut = false;
  EXPECT_EQ(LeaseClient(socket).ask().substr(0, 7), "orvane-");
  EXPECT_EQ(producer.queues.ask({{.type = 3, .seqNo = 3}}).status, 0);
}

class NoticeTest : public TakenOverWorker, public testing::WithParamInterface<Rights> {};

// The queue is the producer's by then.
TEST_P(NoticeTest, ReachesTheProducerOfADeadWorker) {
  startServer(GetParam());
  LeasedProducer producer(socket);
  EXPECT_EQ(producer.queues.ask({kOpen}), (Answer{0, ""}));
  kill(server->workerOf(producer.name), SIGKILL);
  EXPECT_EQ(producer.queues.answer(),
            (Answer{1008, "what served the queue died: send again what it did not acknowledge"}));
  EXPECT_TRUE(eventually([&] { return sharedMemoryOf(producer.name).empty(); }));
}

INSTANTIATE_TEST_SUITE_P(As, NoticeTest,
                         testing::ValuesIn(geteuid() == 0
                                               ? std::vector{Rights::root, Rights::service}
                                               : std::vector{Rights::user}),
                         [](const auto& test) { return nameOf(test.param); });

}  // namespace
}  // namespace orvane::test
