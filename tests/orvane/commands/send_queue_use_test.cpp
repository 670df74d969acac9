// A queue with a fixed name has one sender at a time.

#include <gtest/gtest.h>
#include <sys/syscall.h>

#include <csignal>
#include <memory>
#include <orvane/orvane.hpp>

#include "support/eventually.hpp"
#include "support/server.hpp"
#include "support/text.hpp"

namespace orvane::test {
namespace {

constexpr char kSince[] = " since 20[0-9]{2}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}Z";

class SendQueueUse : public testing::Test {
 protected:
  // A sender that has opened its stream, and waits for its input.
  void startFirst() {
    first = std::make_unique<Process>(server.sendCommand({"-"}));
    ASSERT_TRUE(eventually([&] { return showsOpenStream(); }));
  }

  bool showsOpenStream() {
    return bool(contains(run({ORVANE_PATH, "stat", "--interval", "0", server.queue()}).out,
                         "open stream  2"));
  }

  // The whole message, but for the time, while the first sender holds the lock.
  std::string usedByFirst() {
    return "orvane send: queue " + server.queue() + " is in use by process " +
           std::to_string(first->pid()) + kSince + ": wait, --wait SECONDS, or use --socket\n";
  }

  void expectFirstIsStored() {
    first->write("the first one's");
    EXPECT_EQ(first->wait().how, "exit 0");
    EXPECT_EQ(server.content(0), "the first one's");
    EXPECT_EQ(server.fact(0, "end"), "closed");
  }

  Server server;
  std::unique_ptr<Process> first;
};

TEST_F(SendQueueUse, ASecondSenderIsToldAboutTheFirstAndSendsNothing) {
  ASSERT_NO_FATAL_FAILURE(startFirst());

  const Ended second = run(server.sendCommand({"/dev/null"}));

  EXPECT_EQ(second.how, "exit 1");
  EXPECT_EQ(second.out, "");
  EXPECT_TRUE(matches(second.err, usedByFirst()));
  expectFirstIsStored();
  EXPECT_EQ(server.streams().size(), 1u);
}

TEST_F(SendQueueUse, ASenderThatHoldsTheLockIsNotTakenOver) {
  ASSERT_NO_FATAL_FAILURE(startFirst());

  const Ended second = run(server.sendCommand({"--take-over", "/dev/null"}));

  EXPECT_EQ(second.how, "exit 1");
  EXPECT_TRUE(matches(second.err, usedByFirst()));
  expectFirstIsStored();
}

TEST_F(SendQueueUse, ASenderWaitsForTheOther) {
  ASSERT_NO_FATAL_FAILURE(startFirst());
  Process second(server.sendCommand({"--wait", "86400", "/dev/null"}));
  const std::string systemCall = "/proc/" + std::to_string(second.pid()) + "/syscall";
  ASSERT_TRUE(eventually(
      [&] { return readFile(systemCall).starts_with(std::to_string(SYS_ppoll) + " "); }));

  expectFirstIsStored();

  EXPECT_EQ(second.wait().how, "exit 0");
  EXPECT_EQ(server.streams().size(), 2u);
}

TEST_F(SendQueueUse, ASenderWaitsNoLongerThanItIsTold) {
  ASSERT_NO_FATAL_FAILURE(startFirst());

  const Ended second = run(server.sendCommand({"-w", "1", "/dev/null"}));

  EXPECT_EQ(second.how, "exit 1");
  EXPECT_TRUE(matches(second.err, usedByFirst()));
}

TEST_F(SendQueueUse, AWaitCanBeInterrupted) {
  ASSERT_NO_FATAL_FAILURE(startFirst());
  Process second(server.sendCommand({"--wait", "86400", "/dev/null"}));
  const std::string systemCall = "/proc/" + std::to_string(second.pid()) + "/syscall";
  ASSERT_TRUE(eventually(
      [&] { return readFile(systemCall).starts_with(std::to_string(SYS_ppoll) + " "); }));

  second.signal(SIGINT);
  const Ended ended = second.wait();

  EXPECT_EQ(ended.how, "signal 2");
  EXPECT_EQ(ended.err, "orvane send: interrupted\n");
}

TEST_F(SendQueueUse, AProducerWithoutALockIsFoundByItsStreamAndTakenOverOnlyOnRequest) {
  ShmWriter writer("", server.queue(), 30, 30, false);
  writer.open();
  writer.writeSegment(reinterpret_cast<const unsigned char*>("data"), 4);
  writer.flush_shm_buffer(30);
  ASSERT_TRUE(eventually([&] { return showsOpenStream(); }));

  const Ended refused = run(server.sendCommand({"-"}), "the second one's");
  const std::size_t streams = server.streams().size();
  const Ended sent = run(server.sendCommand({"--take-over", "-"}), "the second one's");

  EXPECT_EQ(refused.how, "exit 1");
  EXPECT_EQ(refused.out, "");
  EXPECT_TRUE(matches(refused.err, "orvane send: queue " + server.queue() + " is in use" + kSince +
                                       ", its last batch came [0-9]+ s ago: wait, --wait SECONDS, "
                                       "or use --socket; if its producer died, --take-over cuts "
                                       "its stream off\n"));
  EXPECT_EQ(streams, 1u);
  EXPECT_EQ(sent.how, "exit 0") << sent.err;
  EXPECT_EQ(server.fact(0, "end"), "cut-off");
  EXPECT_EQ(server.content(1), "the second one's");
}

TEST_F(SendQueueUse, AKilledSenderHoldsNoLock) {
  ASSERT_NO_FATAL_FAILURE(startFirst());
  first->signal(SIGKILL);
  ASSERT_TRUE(eventually([&] { return first->hasEnded(); }));

  EXPECT_EQ(run(server.sendCommand({"/dev/null"})).how, "exit 1") << "its stream is still open";
  EXPECT_EQ(run(server.sendCommand({"--take-over", "/dev/null"})).how, "exit 0");
}

TEST(SendQueueUseOptions, AreForQueuesOnly) {
  const std::string text =
      "orvane send: --wait and --take-over are for --queue: each lease has one sender (orvane send "
      "--help shows the usage)\n";
  EXPECT_EQ(run({ORVANE_PATH, "send", "--socket", "s", "--wait", "1", "f"}).err, text);
  EXPECT_EQ(run({ORVANE_PATH, "send", "--socket", "s", "--take-over", "f"}).err, text);
}

}  // namespace
}  // namespace orvane::test
