// What must not end, delay or double the supervisor.

#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <stdexcept>

#include "queue/message_queue.hpp"
#include "shm/fd.hpp"
#include "shm/lock_file.hpp"
#include "store/stream_directory.hpp"
#include "support/lease_fixture.hpp"
#include "support/queue_pair.hpp"

namespace orvane::test {
namespace {

namespace fs = std::filesystem;

struct ChildProcess {
  std::string name;
  pid_t parent = 0;
  pid_t group = 0;
};

std::map<pid_t, ChildProcess> processes() {
  std::map<pid_t, ChildProcess> found;
  for (const auto& entry : fs::directory_iterator("/proc")) {
    const std::string name = entry.path().filename();
    std::ifstream file(entry.path() / "stat");
    std::string stat;
    if (name.find_first_not_of("0123456789") != std::string::npos || !std::getline(file, stat)) {
      continue;
    }
    const std::size_t nameEnd = stat.rfind(')');
    std::istringstream fields(stat.substr(nameEnd + 1));
    char state = 0;
    ChildProcess process;
    process.name = stat.substr(stat.find('(') + 1, nameEnd - stat.find('(') - 1);
    fields >> state >> process.parent >> process.group;
    found[std::stoi(name)] = process;
  }
  return found;
}

class SupervisorTest : public LeaseTest {
 protected:
  // Every process of the server is its supervisor's child.
  bool hasOneSupervisor() const {
    for (const auto& [id, process] : processes()) {
      if (process.group == server->process() && id != server->process() &&
          process.parent != server->process()) {
        return false;
      }
    }
    return true;
  }

  void killBrokers() const {
    for (const auto& [id, process] : processes()) {
      if (process.parent == server->process() && process.name == "orvaned-broker") {
        kill(id, SIGKILL);
      }
    }
  }

  const std::string storeAway = folder.path() + "/away";
};

TEST_F(SupervisorTest, StaysAloneWhenAWorkerDiesWhileTheStoreIsAway) {
  const QueueName name(uniqueQueueName());
  start({"--queue", name.text()});
  ASSERT_TRUE(server->says("serving queue " + name.text() + " "));
  Producer producer(name.text());
  EXPECT_EQ(producer.ask({kOpen, kHello, kEndOfSegment}), (Answer{0, ""}));
  const std::string stream = folderOf(name.text()).substr(store.path().size());
  fs::rename(store.path(), storeAway);
  kill(server->workerOf(name.text()), SIGKILL);
  EXPECT_EQ(producer.answer().status, 1008);
  ASSERT_TRUE(server->says("cannot store into " + store.path()));
  // The broker has the stream's folder, wherever it is.
  EXPECT_TRUE(eventually([&] { return fs::exists(storeAway + stream + "/manifest"); }));
  fs::rename(storeAway, store.path());
  ASSERT_TRUE(server->says("serving queue " + name.text() + " ", 2));
  EXPECT_TRUE(hasOneSupervisor());
  Producer next(name.text());
  EXPECT_EQ(next.ask({kOpen, kHello}), (Answer{0, ""}));
  EXPECT_EQ(next.ask({{.type = 3, .seqNo = 3}}).status, 0);
}

// Its worker has nobody to open files for it then, and the stream that was open is looked for.
TEST_F(SupervisorTest, EndsAWorkerWhoseBrokerDiedAndFinishesItsStream) {
  start();
  LeasedProducer producer(socket);
  EXPECT_EQ(producer.queues.ask({kOpen, kHello, kEndOfSegment}), (Answer{0, ""}));
  EXPECT_TRUE(eventually([&] { return fs::exists(folderOf(producer.name) + "/segment-000000"); }));
  killBrokers();
  EXPECT_EQ(producer.client.next(), "failed 1008 what served the queue died");
  EXPECT_TRUE(server->says(" error 1008 pair::step: queue " + producer.name +
                           ": its worker has lost the process that opens its files and is "
                           "killed\n"));
  EXPECT_EQ(endingOf(producer.name), "end=cut-off\nreason=its worker died\n");
  EXPECT_EQ(readFile(folderOf(producer.name) + "/segment-000000"), "hello");
}

// The broker can die between the creation of a stream's folder and that of its manifest.
TEST_F(SupervisorTest, FinishesALeasesStreamWhoseManifestHasNotBegun) {
  const std::string first = store.path() + "/dead-20200101T000004-1_0";
  fs::create_directory(first);
  start();
  LeasedProducer producer(socket);
  // The search for the streams of dead servers is over.
  ASSERT_TRUE(eventually([&] { return fs::exists(first + "/manifest"); }));
  const std::string stream = store.path() + "/" + socketName() + "-20200101T000004-1_1";
  fs::create_directory(stream);
  EXPECT_EQ(producer.queues.ask({kOpen, kHello}), (Answer{0, ""}));
  killBrokers();
  ASSERT_TRUE(eventually([&] { return fs::exists(stream + "/manifest"); }));
  const std::string manifest = readFile(stream + "/manifest");
  EXPECT_NE(manifest.find("\nqueue=" + producer.name + "\n"), std::string::npos) << manifest;
  EXPECT_NE(manifest.find("reason=its%20worker%20died\n"), std::string::npos) << manifest;
}

// Such a worker can end in order, before the supervisor looks.
TEST_F(SupervisorTest, FinishesTheStreamOfAWorkerThatEndedWithoutItsBroker) {
  start();
  auto producer = std::make_unique<LeasedProducer>(socket);
  const std::string queue = producer->name;
  EXPECT_EQ(producer->queues.ask({kOpen, kHello, kEndOfSegment}), (Answer{0, ""}));
  EXPECT_TRUE(eventually([&] { return fs::exists(folderOf(queue) + "/segment-000000"); }));
  const pid_t worker = server->workerOf(queue);
  stop(server->process());
  killBrokers();
  producer.reset();
  EXPECT_TRUE(eventually([&] { return stateOf(worker) == 'Z'; }));
  kill(server->process(), SIGCONT);
  EXPECT_EQ(endingOf(queue), "end=cut-off\nreason=its producer died or left\n");
  EXPECT_EQ(readFile(folderOf(queue) + "/segment-000000"), "hello");
}

// A dead run whose last process lingers makes the supervisor look again and again.
class LingeringRun {
 public:
  LingeringRun() {
    if (pipe(ends) != 0) {
      throw std::runtime_error("no pipe");
    }
    dead = fork();
    if (dead == 0) {
      const tool::LockFile lock(tool::lockPathOf(run));
      worker = fork();
      if (worker == 0) {
        pause();
      }
      _exit(::write(ends[1], &worker, sizeof worker) == sizeof worker ? 0 : 1);
    }
    if (read(ends[0], &worker, sizeof worker) != sizeof worker || waitpid(dead, nullptr, 0) < 0) {
      throw std::runtime_error("no process");
    }
  }
  ~LingeringRun() {
    kill(worker, SIGKILL);
    close(ends[0]);
    close(ends[1]);
    eventually([this] { return stateOf(worker) == '\0' || stateOf(worker) == 'Z'; });
    fs::remove(tool::lockPathOf(run));
  }
  LingeringRun(const LingeringRun&) = delete;
  LingeringRun& operator=(const LingeringRun&) = delete;

  const std::string run = "orvane-20200101T000004-" + std::to_string(getpid());

 private:
  int ends[2] = {};
  pid_t dead = -1;
  pid_t worker = -1;
};

TEST_F(SupervisorTest, KeepsItsLeasesWhenTheStoreIsAwayWhileADeadRunLingers) {
  const LingeringRun lingering;
  const std::string stream = store.path() + "/" + lingering.run + "_0-20200101T000004-1_0";
  fs::create_directory(stream);
  orvaned::LocalDirectory inUse(stream);
  ASSERT_TRUE(inUse.lock());
  start();
  LeasedProducer producer(socket);
  EXPECT_EQ(producer.queues.ask({kOpen, kHello}), (Answer{0, ""}));
  fs::rename(store.path(), storeAway);
  ASSERT_TRUE(server->says("cannot look for unfinished streams, trying again", 2));
  EXPECT_TRUE(server->isRunning());
  EXPECT_TRUE(hasOneSupervisor());
  fs::rename(storeAway, store.path());
  EXPECT_EQ(producer.queues.ask({{.type = 3, .seqNo = 3}}).status, 0);
  EXPECT_EQ(LeaseClient(socket).ask().substr(0, 7), "orvane-");
}

// The search waits for the stream that another process uses, and ends without having finished it.
TEST_F(SupervisorTest, LooksAgainForStreamsThatWentAwayWithTheStore) {
  const std::string stream = store.path() + "/moved-20200101T000004-1_0";
  fs::create_directory(stream);
  writeFile(stream + "/manifest.part", "");
  auto inUse = std::make_unique<orvaned::LocalDirectory>(stream);
  ASSERT_TRUE(inUse->lock());
  const tool::Fd events(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
  ASSERT_GE(inotify_add_watch(events.get(), (stream + "/manifest.part").c_str(), IN_CLOSE_NOWRITE),
            0);
  start();
  // The search has listed the store, because it has read this file.
  alignas(inotify_event) char event[sizeof(inotify_event)];
  ASSERT_TRUE(eventually([&] { return read(events.get(), event, sizeof event) > 0; }));
  fs::rename(store.path(), storeAway);
  ASSERT_TRUE(server->says("cannot look for unfinished streams, trying again"));
  inUse.reset();
  fs::rename(storeAway, store.path());
  EXPECT_TRUE(eventually([&] { return fs::exists(stream + "/manifest"); }));
}

TEST_F(SupervisorTest, GoesOnWithoutAFileToSpare) {
  ServerProcess::Setup setup;
  setup.prepare = [] {
    const rlimit files = {64, 64};
    setrlimit(RLIMIT_NOFILE, &files);
  };
  const LingeringRun lingering;
  server = std::make_unique<ServerProcess>(arguments({"--pairs-per-user", "100"}), setup);
  ASSERT_TRUE(server->says("serving leases at ")) << server->output();
  LeasedProducer producer(socket);
  std::vector<LeaseClient> silent;
  for (int i = 0; i < 60; ++i) {
    silent.emplace_back(socket);
  }
  EXPECT_EQ(producer.queues.ask({kOpen, kHello}), (Answer{0, ""}));
  ASSERT_TRUE(server->says("Too many open files")) << server->output();
  EXPECT_TRUE(server->isRunning());
  silent.clear();
  EXPECT_EQ(producer.queues.ask({{.type = 3, .seqNo = 3}}).status, 0);
  EXPECT_TRUE(eventually([&] {
    LeaseClient client(socket);
    client.send("orvane 1 lease");
    return client.next().starts_with("lease ");
  }));
}

// A pair's totals name the user whose files a notice may go into. These have none.
TEST_F(SupervisorTest, OpensNoFileOfAStrangerToLeaveANoticeThere) {
  if (geteuid() != 0) {
    return;  // nobody can make a file of another user's; the next test has all that is left
  }
  const std::string run = "orvane-20200101T000005-" + std::to_string(getpid());
  const std::string queue = run + "_0123456789abcdef";
  boost::interprocess::message_queue forged(boost::interprocess::create_only,
                                            (queue + "Response").c_str(), 4, 132);
  const std::string path = "/dev/shm/" + queue + "Response";
  ASSERT_EQ(chown(path.c_str(), 65531, 65531), 0);
  writeFile("/dev/shm/." + run + ".lock", "1\n");
  start();
  EXPECT_TRUE(eventually([&] { return !fs::exists("/dev/shm/." + run + ".lock"); }));
  EXPECT_FALSE(fs::exists(path));
  EXPECT_EQ(forged.get_num_msg(), 0U);
}

TEST_F(SupervisorTest, LeavesANoticeInAFileOfItsOwn) {
  const std::string run = "orvane-20200101T000006-" + std::to_string(getpid());
  const std::string queue = run + "_0123456789abcdef";
  boost::interprocess::message_queue left(boost::interprocess::create_only,
                                          (queue + "Response").c_str(), 4, 132);
  writeFile("/dev/shm/." + run + ".lock", "1\n");
  start();
  EXPECT_EQ(awaitAnswer(left),
            (Answer{1008, "the server died: send again what it did not acknowledge"}));
  EXPECT_TRUE(eventually([&] { return !fs::exists("/dev/shm/" + queue + "Response"); }));
}

}  // namespace
}  // namespace orvane::test
