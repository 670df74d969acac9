// A fixed name whose worker dies, hangs or is left idle: the pair is created again, and its
// producer is told.

#include <sys/syscall.h>

#include <chrono>
#include <csignal>

#include "support/lease_fixture.hpp"
#include "support/peer.hpp"
#include "support/queue_pair.hpp"

namespace orvane::test {
namespace {

using std::chrono::seconds;
using std::chrono::steady_clock;

constexpr char kWorkerDied[] = "what served the queue died: send again what it did not acknowledge";

class WorkerDeathTest : public LeaseTest {
 protected:
  // Serves leases as well, as far as a test asks for them.
  void startFixed(const Words& more = {}) {
    Words words = {"--queue", name};
    words.insert(words.end(), more.begin(), more.end());
    start(words);
    ASSERT_TRUE(server->says("serving queue " + name + " "));
  }
  pid_t worker() const { return server->workerOf(name); }

  const QueueName nameGuard{uniqueQueueName()};
  const QueueName responseGuard{nameGuard.text() + "Response"};
  const QueueName lockGuard{"." + nameGuard.text() + ".lock"};
  const std::string& name = nameGuard.text();
};

TEST_F(WorkerDeathTest, MakesThePairAnewAndFinishesTheStreamAndNobodyElseNotices) {
  startFixed();
  Producer producer(name);
  LeasedProducer other(socket);
  EXPECT_EQ(other.queues.ask({kOpen, kHello}), (Answer{0, ""}));
  EXPECT_EQ(producer.ask({kOpen, kHello, kEndOfSegment}), (Answer{0, ""}));
  const std::string path = folderOf(name);
  kill(worker(), SIGKILL);
  EXPECT_EQ(producer.answer(), (Answer{1008, kWorkerDied}));
  ASSERT_TRUE(server->says("serving queue " + name + " ", 2));
  EXPECT_TRUE(server->says(" error 1008 pair::workerEnded: queue " + name +
                           ": its worker was killed by signal 9\n"));
  EXPECT_EQ(endingOf(name), "end=cut-off\nreason=its worker died\n");
  EXPECT_EQ(readFile(path + "/segment-000000"), "hello");

  Producer next(name);
  EXPECT_EQ(next.ask({kOpen}), (Answer{0, ""}));
  const Answer receipt = next.ask({kHello, kClose});
  EXPECT_EQ(receipt.status, 0);
  EXPECT_TRUE(receipt.text.ends_with(" records=1 bytes=5 segments=1 end=closed")) << receipt;
  EXPECT_EQ(other.queues.ask({kClose}).status, 0);
  EXPECT_EQ(other.client.next(),
            "receipt stream=" + streamOf(other.name) + " records=1 bytes=5 segments=1 end=closed");
}

TEST_F(WorkerDeathTest, HappensAgainAndAgain) {
  startFixed();
  for (int death = 1; death <= 5; ++death) {
    Producer producer(name);
    EXPECT_EQ(producer.ask({kOpen}), (Answer{0, ""}));
    kill(worker(), SIGKILL);
    EXPECT_EQ(producer.answer(), (Answer{1008, kWorkerDied}));
    ASSERT_TRUE(server->says("serving queue " + name + " ", death + 1));
  }
  EXPECT_EQ(sharedMemoryOf(name),
            (Words{"." + name + ".lock", "." + name + ".stats", name, name + "Response"}));
}

TEST_F(WorkerDeathTest, ByAStopInsideAQueueCallIsTheSupervisorsDoing) {
  startFixed();
  boost::interprocess::message_queue answers(boost::interprocess::open_only,
                                             (name + "Response").c_str());
  const Child peer([this] { sendAndRaise(name, SIGSTOP); });
  ASSERT_TRUE(eventually([&] { return stateOf(peer.pid()) == 'T'; }));
  const pid_t stuck = worker();
  ASSERT_TRUE(eventually([&] { return systemCallOf(stuck) == SYS_futex; }));
  const auto begin = steady_clock::now();
  stop(stuck);
  ASSERT_TRUE(server->says("serving queue " + name + " ", 2));
  const auto taken = steady_clock::now() - begin;
  EXPECT_GE(taken, seconds(4));
  EXPECT_LT(taken, seconds(10));
  EXPECT_TRUE(server->says(" error 1008 pair::step: queue " + name +
                           ": its worker hangs inside a queue and is killed\n"));
  EXPECT_TRUE(server->says(" error 1008 pair::workerEnded: queue " + name +
                           ": its worker was killed by signal 9\n"));
  EXPECT_EQ(awaitAnswer(answers), (Answer{1008, kWorkerDied}));
  EXPECT_EQ(stateOf(stuck), '\0');
  EXPECT_EQ(Producer(name).ask({kOpen}), (Answer{0, ""}));
}

TEST_F(WorkerDeathTest, AStoppedWorkerDoesNotKeepTheServerFromEnding) {
  startFixed();
  Producer producer(name);
  EXPECT_EQ(producer.ask({kOpen, kHello}), (Answer{0, ""}));
  stop(worker());
  const auto begin = steady_clock::now();
  server->signal(SIGTERM);
  EXPECT_EQ(server->wait(), 0);
  EXPECT_LT(steady_clock::now() - begin, seconds(20));
  EXPECT_EQ(producer.answer(), (Answer{1008, kWorkerDied}));
  EXPECT_EQ(sharedMemoryOf(name), Words{});
  EXPECT_EQ(endingOf(name), "end=cut-off\nreason=its worker died\n");
}

TEST_F(WorkerDeathTest, DoesNotMakeAnOrderlyEndSlow) {
  startFixed();
  const LeasedProducer producer(socket);
  const auto begin = steady_clock::now();
  server->signal(SIGTERM);
  EXPECT_EQ(server->wait(), 0);
  // It may have to finish what a dead server of some other test left, 3 s at most.
  EXPECT_LT(steady_clock::now() - begin, seconds(8));
}

TEST_F(WorkerDeathTest, IsNotTheServersDeathWhichItsWorkerOutlivesInOrder) {
  startFixed();
  Producer producer(name);
  EXPECT_EQ(producer.ask({kOpen, kHello}), (Answer{0, ""}));
  server->signal(SIGKILL);
  EXPECT_EQ(server->wait(), -SIGKILL);  // behind its worker's last line
  EXPECT_TRUE(
      server->output().ends_with("stopped serving queue " + name + ": the server was stopped\n"))
      << server->output();
  EXPECT_EQ(producer.answer(), (Answer{1004, kStoppedNotice}));
  EXPECT_TRUE(eventually([&] { return sharedMemoryOf(name) == Words{"." + name + ".lock"}; }));
  EXPECT_EQ(endingOf(name), "end=cut-off\nreason=the server was stopped\n");
  EXPECT_EQ(readFile(folderOf(name) + "/segment-000000.part"), "hello");
  startFixed();
  EXPECT_EQ(Producer(name).ask({kOpen, kClose}).status, 0);
}

class IdleLimit : public WorkerDeathTest {};

TEST_F(IdleLimit, MakesAUsedPairAnewAndNotAnUnusedOne) {
  const QueueName unusedName(uniqueQueueName() + ".unused");
  ServerProcess unused(
      {"--queue", unusedName.text(), "--store", folder.path(), "--idle-limit", "1"});
  ASSERT_TRUE(unused.isServing());
  startFixed({"--idle-limit", "1"});
  Producer producer(name);
  LeasedProducer leased(socket);
  EXPECT_EQ(leased.queues.ask({kOpen}), (Answer{0, ""}));
  EXPECT_EQ(producer.ask({kOpen, kHello}), (Answer{0, ""}));
  const auto begin = steady_clock::now();
  EXPECT_EQ(producer.answer(), (Answer{1004, "no record came for 1 s: attach to the queue anew"}));
  EXPECT_GE(steady_clock::now() - begin, std::chrono::milliseconds(900));
  ASSERT_TRUE(server->says("serving queue " + name + " ", 2));
  EXPECT_TRUE(server->says(" info 0 orvaned::serve: stopped serving queue " + name +
                           ": no record came for 1 s\n"));
  EXPECT_EQ(endingOf(name), "end=cut-off\nreason=no record came for 1 s\n");
  EXPECT_EQ(Producer(name).ask({kOpen}), (Answer{0, ""}));

  unused.signal(SIGTERM);
  EXPECT_EQ(unused.wait(), 0);
  EXPECT_EQ(unused.output().find("no record came"), std::string::npos) << unused.output();
  EXPECT_EQ(leased.queues.ask({kHello, kClose}).status, 0);
  EXPECT_EQ(leased.client.next(),
            "receipt stream=" + streamOf(leased.name) + " records=1 bytes=5 segments=1 end=closed");
}

class StalePair : public WorkerDeathTest {};

TEST_F(StalePair, IsReplacedAndItsProducerToldBefore) {
  using boost::interprocess::create_only;
  boost::interprocess::message_queue send(create_only, name.c_str(), 3, 100);
  boost::interprocess::message_queue answers(create_only, (name + "Response").c_str(), 5, 132);
  startFixed();
  EXPECT_EQ(awaitAnswer(answers),
            (Answer{1008, "the server died: send again what it did not acknowledge"}));
  EXPECT_TRUE(takeAnswers(answers).empty());
  const boost::interprocess::message_queue fresh(boost::interprocess::open_only, name.c_str());
  EXPECT_EQ(fresh.get_max_msg_size(), 1048968U);
  EXPECT_EQ(send.get_num_msg(), 0U);
  EXPECT_EQ(Producer(name).ask({kOpen}), (Answer{0, ""}));
}

TEST_F(StalePair, IsReplacedThoughNothingInItCanBeUsed) {
  writeFile("/dev/shm/" + name, "");
  writeFile("/dev/shm/" + name + "Response", "x");
  writeFile("/dev/shm/." + name + ".new", std::string(100, '\xff'));
  startFixed();
  EXPECT_EQ(sharedMemoryOf(name),
            (Words{"." + name + ".lock", "." + name + ".stats", name, name + "Response"}));
  EXPECT_EQ(Producer(name).ask({kOpen}), (Answer{0, ""}));
}

}  // namespace
}  // namespace orvane::test
