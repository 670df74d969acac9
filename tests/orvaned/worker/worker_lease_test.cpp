// A worker and its producer's connection in one process, step by step: what a lease is told, how
// long its producer is waited for, and in which order everything happens.

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <system_error>
#include <utility>

#include "orvaned/store/file_calls.hpp"
#include "orvaned/worker/frozen_time.hpp"
#include "support/manifest.hpp"
#include "support/served.hpp"

namespace orvane::test {
namespace {

using boost::interprocess::interprocess_exception;
using boost::interprocess::message_queue;
using boost::interprocess::open_only;
using orvaned::Ending;
using orvaned::Sync;
using std::chrono::microseconds;

using Answers = std::vector<Answer>;
using Lines = std::vector<Line>;
using Packets = std::vector<std::string>;

const Record kOpen{.type = 0, .seqNo = 0};
const Record kHello{.type = 1, .seqNo = 2, .segmentDone = 0, .data = bytesOf("hello")};
const Record kClose{.type = 3, .seqNo = 5};

// Its streams are 1_0, 1_1, ... in folders of these names.
class RecordedAccess : public orvaned::StoreAccess {
 public:
  explicit RecordedAccess(std::string storeFolder) : folder(std::move(storeFolder)) {}

  NewStream createStream() override {
    const std::string id = "1_" + std::to_string(streams++);
    const std::string path = folder + "/" + id;
    std::error_code failed;
    if (!std::filesystem::create_directory(path, failed)) {
      orvaned::throwStoreFailed(failed.value(), "create", id);
    }
    return {{.queue = "q", .stream = id}, std::make_unique<RecordedDirectory>(path)};
  }
  std::unique_ptr<orvaned::StreamDirectory> outside() override {
    return std::make_unique<RecordedDirectory>(folder);
  }

 private:
  const std::string folder;
  int streams = 0;
};

class WorkerLease : public testing::Test {
 protected:
  WorkerLease() {
    int ends[2] = {-1, -1};
    socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends);
    producer = tool::Fd(ends[1]);
    lease = std::make_unique<orvaned::LeaseConnection>(tool::Fd(ends[0]));
    worker = makeWorker(lease.get());
  }

  std::unique_ptr<orvaned::Worker> makeWorker(orvaned::LeaseConnection* connection,
                                              orvaned::Capture capture = {}) {
    return std::make_unique<orvaned::Worker>("q", queues, store, connection, std::move(capture));
  }

  void send(const Bytes& message) {
    ASSERT_TRUE(sendQueue.try_send(message.data(), message.size(), 1));
  }
  void send(std::initializer_list<Record> records) { send(BatchBytes().records(records).bytes()); }
  Answers ask(std::initializer_list<Record> records) {
    send(records);
    worker->runOnce();
    return takeAnswers(responseQueue);
  }

  void fillLease() {
    while (!lease->isFull()) {
      lease->send(orvane::LeaseGranted{"of-before"});
    }
  }

  // What the lease's producer was sent.
  Packets told() {
    Packets packets;
    char packet[512];
    for (ssize_t size = 0;
         (size = recv(producer.get(), packet, sizeof packet, MSG_DONTWAIT)) > 0;) {
      packets.emplace_back(packet, static_cast<std::size_t>(size));
    }
    return packets;
  }

  std::string manifest(const std::string& stream) const {
    return plainManifest(readFile(folder.path() + "/" + stream + "/manifest"));
  }
  std::uint64_t unread() { return queues.totals().unreadReceipts; }

  TempFolder folder;
  const QueueName name{uniqueQueueName()};
  const QueueName responseName{name.text() + "Response"};
  orvaned::QueuePair queues{name.text(), {8, 20000, 0600}};
  orvaned::Store store{std::make_unique<RecordedAccess>(folder.path()), "q", Sync::none};
  tool::Fd producer;
  std::unique_ptr<orvaned::LeaseConnection> lease;
  std::unique_ptr<orvaned::Worker> worker;
  message_queue sendQueue{open_only, name.text().c_str()};
  message_queue responseQueue{open_only, responseName.text().c_str()};
};

TEST_F(WorkerLease, IsToldHowEachStreamEnded) {
  ask({kOpen, kHello, kClose});
  EXPECT_EQ(told(), Packets{"receipt stream=1_0 records=1 bytes=5 segments=1 end=closed"});
  ask({kOpen, kHello});
  EXPECT_EQ(told(), Packets{});
  ask({kOpen});
  EXPECT_EQ(told(), Packets{"receipt stream=1_1 records=1 bytes=5 segments=1 end=cut-off"});
  ask({kHello, kHello});
  EXPECT_EQ(told(), Packets{"failed 1001 sequence number out of order: expected above 2, got 2"});
  ask({kClose});
  EXPECT_EQ(told(), Packets{});
}

TEST_F(WorkerLease, IsToldOnceOfAStreamThatCannotBegin) {
  std::filesystem::remove(folder.path());
  ask({kOpen, kHello});
  EXPECT_EQ(told(), Packets{"failed 1003 No such file or directory: cannot create 1_0"});
  ask({kClose});
  EXPECT_EQ(told(), Packets{});
  std::filesystem::create_directory(folder.path());
}

TEST_F(WorkerLease, IsToldOfTheStreamThatItsServersEndCutsOff) {
  ask({kOpen, kHello});
  worker->finish(kStopped);
  EXPECT_EQ(told(), Packets{"failed 1004 the server was stopped"});
}

TEST_F(WorkerLease, IsServedNoMoreUntilItsReceiptsAreRead) {
  const std::string warning =
      "worker::mayTake: queue q: no batch is taken until the producer reads some of its 4096 "
      "receipts";
  RecordingSink sink;
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(worker->step(), microseconds(50));
    EXPECT_EQ(unread(), 0U);
    fillLease();
    send({});
    EXPECT_EQ(sink.take(), Lines{});
    EXPECT_EQ(worker->step(), microseconds(100));
    EXPECT_EQ(sink.take(), (Lines{{ox::Kind::warning, 0, warning}}));
    EXPECT_EQ(worker->step(), microseconds(200));
    EXPECT_EQ(sink.take(), Lines{});
    EXPECT_EQ(unread(), 4096U);
    EXPECT_EQ(sendQueue.get_num_msg(), 1U);
    while (!lease->drained()) {
      told();
      lease->sendKept();
    }
    EXPECT_EQ(worker->step(), microseconds(0));
    EXPECT_EQ(sendQueue.get_num_msg(), 0U);
  }
}

TEST_F(WorkerLease, IsWaitedForAtItsEndFor5SecondsOnce) {
  ask({kOpen});
  fillLease();
  send({kHello});
  send({kClose});
  FrozenTime time;
  worker->finish(kStopped);
  EXPECT_EQ(time.polls, std::vector<FrozenTime::Poll>(50, {1, 100}));
  EXPECT_EQ(time.polled.at(0).fd, lease->fd());
  EXPECT_EQ(time.polled.at(0).events, POLLOUT);
  EXPECT_EQ(sendQueue.get_num_msg(), 2U);
  EXPECT_EQ(takeAnswers(responseQueue), (Answers{{1004, kStoppedNotice}}));
  EXPECT_EQ(lease->waiting(), 4097U);
  EXPECT_EQ(unread(), 4097U);
}

TEST_F(WorkerLease, IsSentAllWhenItReadsAtItsEnd) {
  fillLease();
  send({kOpen, kHello});
  FrozenTime time;
  Packets packets;
  std::vector<std::size_t> answers;
  time.duringPoll = [&] {
    answers.push_back(responseQueue.get_num_msg());
    for (std::string& packet : told()) {
      packets.push_back(std::move(packet));
    }
  };
  worker->finish(kStopped);
  for (std::string& packet : told()) {
    packets.push_back(std::move(packet));
  }
  EXPECT_EQ(sendQueue.get_num_msg(), 0U);
  EXPECT_TRUE(lease->drained());
  EXPECT_EQ(unread(), 0U);
  EXPECT_GT(packets.size(), 4096U);
  EXPECT_EQ(packets.back(), "failed 1004 the server was stopped");
  EXPECT_EQ(answers.front(), 0U);
  EXPECT_EQ(answers.back(), 2U) << "the notice is there while the producer is waited for";
}

TEST_F(WorkerLease, IsLookedAtOnceWhenItReadsAtOnce) {
  while (lease->drained()) {
    lease->send(orvane::LeaseGranted{"of-before"});
  }
  FrozenTime time;
  time.duringPoll = [&] { told(); };
  worker->finish(kStopped);
  EXPECT_EQ(time.polls.size(), 1U);
  EXPECT_EQ(told(), Packets{"lease of-before"});
}

TEST_F(WorkerLease, IsToldThatItsQueuesFailed) {
  const auto fail = [](microseconds) -> const Ending* { throw interprocess_exception("broken"); };
  std::vector<std::size_t> answers;
  ask({kOpen, kHello});
  fileCalls().duringRename = [&] { answers.push_back(responseQueue.get_num_msg()); };
  try {
    worker->run(fail);
    FAIL() << "nothing was thrown";
  } catch (const orvaned::PairFailed& e) {
    EXPECT_STREQ(e.what(), "queue q: a process died inside the queue");
  }
  EXPECT_EQ(answers, std::vector<std::size_t>{0}) << "the stream is ended first";
  EXPECT_EQ(takeAnswers(responseQueue), (Answers{{1004, "a process died inside the queue"}}));
  EXPECT_EQ(told(), Packets{"failed 1004 a process died inside the queue"});
  EXPECT_TRUE(manifest("1_0").ends_with("end=broken\nreason=a process died inside the queue\n"));
}

// Without a lease.
class WorkerSteps : public WorkerLease {
 protected:
  WorkerSteps() { worker = makeWorker(nullptr); }
};

TEST_F(WorkerSteps, WaitAsLongAsEachOfThemSays) {
  std::vector<microseconds> waits;
  send({});
  worker->run([&](microseconds wait) {
    waits.push_back(wait);
    return waits.size() == 4 ? &kStopped : nullptr;
  });
  EXPECT_EQ(waits, (std::vector<microseconds>{microseconds(50), microseconds(0), microseconds(50),
                                              microseconds(100)}));
}

TEST_F(WorkerSteps, AreTracedAndLoggedInTheirOrder) {
  RecordingSink sink(RecordingSink::Tracing::on);
  ask({kOpen, kHello, kClose});
  EXPECT_EQ(
      sink.take(),
      (Lines{traced("worker::takeBatch: queue q: a batch of 3 records, 157 bytes"),
             {ox::Kind::info, 0, "worker::open: queue q: stream 1_0 begins"},
             {ox::Kind::info, 0,
              "worker::concludeStream: queue q: receipt stream=1_0 records=1 bytes=5 segments=1 "
              "end=closed"},
             traced("worker::runOnce: queue q: answered 0 \"receipt stream=1_0 records=1 bytes=5 "
                    "segments=1 end=closed\"")}));
}

TEST_F(WorkerSteps, LogWhatBreaksAStreamBeforeItsEnd) {
  RecordingSink sink;
  ask({kOpen, kHello});
  sink.take();
  ask({kHello});
  EXPECT_EQ(
      sink.take(),
      (Lines{{ox::Kind::error, 1001,
              "worker::take: queue q: sequence number out of order: expected above 2, got 2: two "
              "producers on one queue look like this"},
             {ox::Kind::info, 0,
              "worker::concludeStream: queue q: receipt stream=1_0 records=1 bytes=5 "
              "segments=1 end=broken"}}));
}

TEST_F(WorkerSteps, CountABatchBeforeItIsAnswered) {
  FrozenTime time;
  std::vector<std::size_t> answers;
  time.duringLook = [&] { answers.push_back(responseQueue.get_num_msg()); };
  ask({});
  EXPECT_EQ(answers, std::vector<std::size_t>{0});
}

TEST_F(WorkerSteps, CountNoSegmentWhoseDataCouldNotBeStored) {
  failNext("write", ENOSPC);
  ask({kOpen, {.type = 1, .seqNo = 2, .segmentDone = 0, .data = Bytes(10000)}});
  EXPECT_EQ(queues.totals().segments, 0U);
  EXPECT_EQ(queues.totals().records, 0U);
  EXPECT_EQ(told(), Packets{});
}

TEST_F(WorkerSteps, CountASegmentOfOneByte) {
  ask({kOpen, {.type = 1, .seqNo = 2, .segmentDone = 0, .data = Bytes(1)}, kClose});
  EXPECT_EQ(queues.totals().segments, 1U);
}

TEST_F(WorkerSteps, KeepTheAnswersOfBeforeWhenAnOpenRecordIsRefused) {
  ask({});
  send({});
  worker->runOnce();
  EXPECT_EQ(ask({{.type = 0, .data = bytesOf("data")}}),
            (Answers{{1002, "a record of type 0 has 4 data bytes; it may have none"}, {0, ""}}));
}

TEST_F(WorkerSteps, CaptureWhatTheyTakeAsItCame) {
  const std::string path = folder.path() + "/captured";
  worker = makeWorker(nullptr, orvaned::Capture(path, "q"));
  worker->runOnce();
  EXPECT_EQ(readFile(path), "");
  send(bytesOf("rubbish!"));
  worker->runOnce();
  EXPECT_TRUE(readFile(path).ends_with("rubbish!"));
}

TEST_F(WorkerSteps, SayAtTheEndHowManyBadBatchesTheyRefused) {
  RecordingSink sink;
  worker->finish(kStopped);
  EXPECT_EQ(sink.take(), Lines{});
  send(bytesOf("rubbish!"));
  worker->runOnce();
  ask({kOpen});
  sink.take();
  worker->finish(kStopped);
  EXPECT_EQ(sink.take(),
            (Lines{{ox::Kind::info, 0,
                    "worker::concludeStream: queue q: receipt stream=1_0 records=0 bytes=0 "
                    "segments=0 end=cut-off"},
                   {ox::Kind::warning, 1000,
                    "worker::finish: queue q: 1 bad batches were refused in all"}}));
}

}  // namespace
}  // namespace orvane::test
