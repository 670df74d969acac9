#include <gtest/gtest.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <fstream>

#include "support/eventually.hpp"
#include "support/queue_pair.hpp"
#include "support/server.hpp"
#include "support/text.hpp"

namespace orvane::test {
namespace {

const std::string kMuch(10 << 20, 'x');  // more than a queue of the default size holds

TEST(SendFailure, MissingQueueIsReportedWithTheQueuesThatAreThere) {
  Server other;

  const Ended ended = run({ORVANE_PATH, "send", "--queue", "nobody-serves-this", "/dev/null"});

  EXPECT_EQ(ended.how, "exit 1");
  EXPECT_EQ(ended.out, "");
  EXPECT_TRUE(startsWith(ended.err,
                         "orvane send: no queue named nobody-serves-this: is orvaned running? "
                         "Queues here: "));
  EXPECT_TRUE(contains(ended.err, other.queue()));
  EXPECT_FALSE(contains(ended.err, other.queue() + "Response"));
}

TEST(SendFailure, NameThatNoQueueCanHaveIsReported) {
  const Ended ended = run({ORVANE_PATH, "send", "--queue", "a/b", "/dev/null"});

  EXPECT_EQ(ended.how, "exit 2");
  EXPECT_EQ(ended.err,
            "orvane send: the queue name holds a character that is not allowed: "
            "use letters, digits and _.- (orvane send --help shows the usage)\n");
}

TEST(SendFailure, NameThatLooksLikeThatOfALeaseIsReported) {
  const Ended ended =
      run({ORVANE_PATH, "send", "--queue", "orvane-20200101T000000-1_7", "/dev/null"});

  EXPECT_EQ(ended.how, "exit 2");
  EXPECT_EQ(ended.err,
            "orvane send: the queue name begins as those of leased queues do, orvane-TIME-PROCESS: "
            "take another one (orvane send --help shows the usage)\n");
}

TEST(SendFailure, ASummaryThatCannotBeWrittenHasACodeOfItsOwn) {
  Server server;
  const std::string send = ORVANE_PATH " send --queue " + server.queue() + " - ";
  const std::string stored = "orvane send: everything is stored, but the summary is lost: ";

  const Ended full = run({"/bin/sh", "-c", "echo data | " + send + "> /dev/full"});
  const Ended closed = run({"/bin/sh", "-c", "echo data | " + send + ">&-"});
  const Ended piped = run({PYTHON_PATH, "-c", kWithoutReader, ORVANE_PATH, "send", "--queue",
                           server.queue(), "/dev/null"});

  EXPECT_EQ(full.how, "exit 6");
  EXPECT_EQ(full.err, stored + "cannot write all of it: No space left on device\n");
  EXPECT_EQ(closed.how, "exit 6");
  EXPECT_EQ(closed.err, stored + "cannot write all of it: Bad file descriptor\n");
  EXPECT_EQ(piped.how, "exit 6");
  EXPECT_EQ(piped.err, stored + "cannot write all of it: Broken pipe\n");
}

TEST(SendFailure, FileThatIsNotThereCostsTheOthersNothing) {
  Server server;

  const Ended ended = run(server.sendCommand({"/proc/self/status", "/nonexistent"}));

  EXPECT_EQ(ended.how, "exit 1");
  EXPECT_EQ(ended.err, "orvane send: cannot open /nonexistent: No such file or directory\n");
  EXPECT_EQ(server.streams().size(), 0u);
}

TEST(SendFailure, FolderIsNoFile) {
  Server server;

  const Ended ended = run(server.sendCommand({"/usr"}));

  EXPECT_EQ(ended.how, "exit 1");
  EXPECT_EQ(ended.err, "orvane send: /usr is a directory: name its files instead\n");
  EXPECT_EQ(server.streams().size(), 0u);
}

TEST(SendFailure, QueueWhoseMessagesHoldNoRecordIsReported) {
  QueuePair queues({.messageSize = 56});

  const Ended ended = run({ORVANE_PATH, "send", "--queue", queues.name(), "/dev/null"});

  EXPECT_EQ(ended.how, "exit 1");
  EXPECT_EQ(ended.err,
            "orvane send: the queue's messages, 56 bytes, are too small for a record: "
            "start orvaned with a larger --message-size\n");
}

TEST(SendFailure, FullQueueThatNobodyServesIsReportedAsNothingSent) {
  QueuePair queues;
  queues.fill();

  const Ended ended =
      run({ORVANE_PATH, "send", "--timeout", "1", "--queue", queues.name(), "/dev/null"});

  EXPECT_EQ(ended.how, "exit 1");
  EXPECT_EQ(ended.err, "orvane send: while sending /dev/null (0 of 1 file stored): the queue " +
                           queues.name() + " was full for 1 s: is orvaned still running?\n");
}

TEST(SendFailure, InputThatCannotBeReadStopsItsStream) {
  Server server;

  const Ended ended = run(server.sendCommand({"-", "/proc/self/mem"}), "whole");

  EXPECT_EQ(ended.how, "exit 5");
  EXPECT_EQ(ended.err,
            "orvane send: while sending /proc/self/mem (1 of 2 files stored): "
            "cannot read all of /proc/self/mem: Input/output error\n");
  ASSERT_TRUE(eventually([&] { return server.fact(1, "end") != "none"; }));
  EXPECT_EQ(server.content(0), "whole");
  EXPECT_EQ(server.fact(1, "end"), "stopped");
}

TEST(SendFailure, StoreThatVanishedIsReportedAsRefused) {
  Server server;
  std::filesystem::remove(server.store());

  const Ended ended = run(server.sendCommand({"-"}), "lost");

  EXPECT_EQ(ended.how, "exit 3");
  EXPECT_EQ(ended.out, "");
  EXPECT_TRUE(matches(ended.err,
                      "orvane send: while sending standard input "
                      "\\(0 of 1 file stored\\): orvaned refused the stream: "
                      "No such file or directory.* \\(status 1003\\)\n"));
}

TEST(SendFailure, DiskThatFillsUpOnTheWayIsReportedAsRefused) {
  Server server({}, {.fileSizeLimit = 9 << 20});

  const Ended ended = run(server.sendCommand({"-"}), kMuch);

  EXPECT_EQ(ended.how, "exit 3");
  EXPECT_EQ(ended.out, "");
  EXPECT_TRUE(contains(ended.err, "orvaned refused the stream: File too large"));
  ASSERT_EQ(server.streams().size(), 1u);
  EXPECT_EQ(server.fact(0, "end"), "broken");
}

// Kills the server, and waits until the system knows that all its processes are gone.
void killAll(Server& server) {
  server.process().signalAll(SIGKILL);
  ASSERT_TRUE(eventually([&] { return !server.process().isRunning(); }));
  ASSERT_TRUE(eventually([&] {
    return contains(run({ORVANE_PATH, "stat", "--interval", "0", server.queue()}).out,
                    "served by    nobody");
  }));
}

TEST(SendFailure, ServerThatIsStoppedForLongLeavesTheOutcomeUnknown) {
  Server server;
  Process send(server.sendCommand({"--timeout", "1", "-"}));
  ASSERT_TRUE(eventually([&] { return server.streams().size() == 1; }));
  server.process().signalAll(SIGSTOP);

  send.write(kMuch);
  const Ended ended = send.wait();

  EXPECT_EQ(ended.how, "exit 4");
  EXPECT_EQ(ended.out, "");
  EXPECT_EQ(ended.err,
            "orvane send: while sending standard input (0 of 1 file stored): the queue " +
                server.queue() + " was full for 1 s: is orvaned still running?\n");
}

TEST(SendFailure, ServerThatIsKilledWhileDataWaitsIsNoticedBeforeTheTimeout) {
  Server server;
  Process send(server.sendCommand({"--timeout", "86400", "-"}));
  ASSERT_TRUE(eventually([&] { return server.streams().size() == 1; }));
  ASSERT_NO_FATAL_FAILURE(killAll(server));

  send.write(kMuch);
  const Ended ended = send.wait();

  EXPECT_EQ(ended.how, "exit 4");
  EXPECT_EQ(ended.out, "");
  EXPECT_EQ(ended.err,
            "orvane send: while sending standard input (0 of 1 file stored): the queue " +
                server.queue() +
                " lost its server, which was killed before it had taken everything\n");
}

TEST(SendFailure, ServerThatIsKilledBeforeTheReceiptIsNoticedBeforeTheTimeout) {
  Server server;
  Process send(server.sendCommand({"--timeout", "86400", "-"}));
  ASSERT_TRUE(eventually([&] { return server.streams().size() == 1; }));
  ASSERT_NO_FATAL_FAILURE(killAll(server));

  send.write("a few bytes");
  const Ended ended = send.wait();

  EXPECT_EQ(ended.how, "exit 4");
  EXPECT_EQ(ended.out, "");
  EXPECT_EQ(ended.err,
            "orvane send: while sending standard input (0 of 1 file stored): "
            "orvaned was killed before it sent a receipt for the stream\n");
}

TEST(SendFailure, ServerThatWasKilledIsReportedBeforeAnythingIsSent) {
  Server server;
  const pid_t process = server.pid();
  ASSERT_NO_FATAL_FAILURE(killAll(server));

  const Ended ended = run(server.sendCommand({"--timeout", "86400", "/dev/null"}));

  EXPECT_EQ(ended.how, "exit 1");
  EXPECT_EQ(ended.out, "");
  EXPECT_EQ(ended.err, "orvane send: the server of queue " + server.queue() + ", process " +
                           std::to_string(process) +
                           ", is gone: start orvaned again, which serves a new queue\n");
}

TEST(SendFailure, MissingReceiptLeavesTheOutcomeUnknown) {
  Server server;
  Process send(server.sendCommand({"--timeout", "1", "-"}));
  ASSERT_TRUE(eventually([&] { return server.streams().size() == 1; }));
  server.process().signalAll(SIGSTOP);

  send.write("a few bytes");
  const Ended ended = send.wait();

  EXPECT_EQ(ended.how, "exit 4");
  EXPECT_EQ(ended.out, "");
  EXPECT_EQ(ended.err,
            "orvane send: while sending standard input (0 of 1 file stored): "
            "orvaned sent no receipt within 1 s: is it still running?\n");
}

TEST(SendFailure, ServerThatWasStoppedSaysSo) {
  Server server;
  Process send(server.sendCommand({"-"}));
  ASSERT_TRUE(eventually([&] { return server.streams().size() == 1; }));
  server.process().signal(SIGTERM);
  ASSERT_EQ(server.process().wait(), 0);

  send.write(kMuch);
  const Ended ended = send.wait();

  EXPECT_EQ(ended.how, "exit 3");
  EXPECT_EQ(
      ended.err,
      "orvane send: while sending standard input (0 of 1 file stored): orvaned refused the "
      "stream: the server was stopped: send again what it did not acknowledge (status 1004)\n");
  EXPECT_EQ(server.fact(0, "end"), "cut-off");
}

TEST(SendFailure, RemovedQueueIsNoticedBeforeTheTimeout) {
  QueuePair queues;
  Process send({ORVANE_PATH, "send", "--queue", queues.name(), "-"});
  ASSERT_TRUE(eventually([&] { return queues.waiting() == 1; }));
  ASSERT_EQ(unlink(("/dev/shm/" + queues.name()).c_str()), 0);

  send.write(kMuch);
  const Ended ended = send.wait();

  EXPECT_EQ(ended.how, "exit 4");
  EXPECT_EQ(ended.err,
            "orvane send: while sending standard input (0 of 1 file stored): the queue " +
                queues.name() + " was removed before orvaned had taken everything\n");
}

// Sets the first word of a queue's file: 1 while the queue is being created, for which a process
// that attaches waits up to 5 seconds, and 2 afterwards.
void setState(const std::string& queueName, std::int32_t state) {
  std::fstream file("/dev/shm/" + queueName, std::ios::in | std::ios::out | std::ios::binary);
  file.write(reinterpret_cast<const char*>(&state), sizeof state);
  ASSERT_TRUE(file.flush());
}

// It attaches to the queues itself, and has the writer do it again.
TEST(SendFailure, QueueThatVanishesBetweenTwoAttachmentsIsNamed) {
  const QueuePair queues;
  ASSERT_NO_FATAL_FAILURE(setState(queues.responseName(), 1));
  Process send({ORVANE_PATH, "send", "--queue", queues.name(), "/dev/null"});
  const std::string maps = "/proc/" + std::to_string(send.pid()) + "/maps";
  ASSERT_TRUE(eventually([&] {  // before it is the program, it is a copy of this process
    const std::string mapped = readFile(maps);
    return contains(mapped, ORVANE_PATH) && contains(mapped, queues.responseName());
  }));
  ASSERT_EQ(unlink(("/dev/shm/" + queues.name()).c_str()), 0);
  ASSERT_NO_FATAL_FAILURE(setState(queues.responseName(), 2));

  const Ended ended = send.wait();

  EXPECT_EQ(ended.how, "exit 1");
  EXPECT_EQ(ended.out, "");
  EXPECT_TRUE(startsWith(ended.err, "orvane send: no queue named " + queues.name() +
                                        ": is orvaned running? Queues here: "));
}

// The writer's own end would close the stream, as a whole one: it would wait for room, and get it.
TEST(SendFailure, StreamThatCannotBeStoppedIsNotClosedEither) {
  QueuePair queues({.depth = 1});
  Process send({ORVANE_PATH, "send", "--queue", queues.name(), "-"});
  ASSERT_TRUE(eventually([&] { return queues.waiting() == 1; }));
  ASSERT_EQ(unlink(("/dev/shm/" + queues.name()).c_str()), 0);
  send.write("more than the one message that the queue holds");
  send.closeInput();

  const std::string systemCall = "/proc/" + std::to_string(send.pid()) + "/syscall";
  ASSERT_TRUE(eventually([&] {
    return send.hasEnded() || readFile(systemCall).starts_with(std::to_string(SYS_futex) + " ");
  }));
  queues.discardAll();

  EXPECT_EQ(send.wait().how, "exit 4");
  EXPECT_EQ(queues.waiting(), 0u);
}

class SendSignal : public testing::TestWithParam<int> {};

TEST_P(SendSignal, StopsTheStream) {
  Server server;
  Process send(server.sendCommand({"-"}));
  send.write("the beginning");
  ASSERT_TRUE(eventually([&] { return server.streams().size() == 1; }));

  send.signal(GetParam());
  ASSERT_TRUE(eventually([&] { return send.hasEnded(); }));

  const Ended ended = send.wait();
  EXPECT_EQ(ended.how, "signal " + std::to_string(GetParam()));
  EXPECT_EQ(ended.out, "");
  EXPECT_EQ(ended.err,
            "orvane send: interrupted while sending standard input (0 of 1 file stored)\n");
  ASSERT_TRUE(eventually([&] { return server.fact(0, "end") != "none"; }));
  EXPECT_EQ(server.fact(0, "end"), "stopped");
}

INSTANTIATE_TEST_SUITE_P(Each, SendSignal, testing::Values(SIGINT, SIGTERM, SIGHUP),
                         [](const auto& parameter) {
                           return std::string(sigabbrev_np(parameter.param));
                         });

TEST(SendFailure, SignalEndsTheWaitForRoom) {
  QueuePair queues;
  queues.fill();
  Process send({ORVANE_PATH, "send", "--timeout", "86400", "--queue", queues.name(), "/dev/null"});
  // Signals are kept back from here on.
  ASSERT_TRUE(eventually([&] {
    return readFile("/proc/" + std::to_string(send.pid()) + "/maps").find(queues.name() + "Resp") !=
           std::string::npos;
  }));

  send.signal(SIGINT);

  EXPECT_EQ(send.wait().how, "signal 2");
}

}  // namespace
}  // namespace orvane::test
