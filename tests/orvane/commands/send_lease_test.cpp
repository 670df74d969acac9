#include <gtest/gtest.h>
#include <signal.h>
#include <sys/syscall.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <orvane/orvane.hpp>
#include <queue/message_queue.hpp>
#include <stdexcept>

#include "orvane/commands/send_lease_fixture.hpp"
#include "support/await.hpp"
#include "support/eventually.hpp"
#include "support/fake_server.hpp"
#include "support/server.hpp"
#include "support/text.hpp"
#include "support/waiting_thread.hpp"

namespace orvane::test {
namespace {

// A server that leases queues, and serves none under a name that this test uses.
class SendOverALease : public SendLeaseTest {
 protected:
  // The process that serves the lease: the one among the server's children that has mapped a queue
  // of the server's run. Others may be cleaning up after servers that other tests have killed.
  pid_t workerOf(const Server& started) const {
    const std::string pid = std::to_string(started.pid());
    std::ifstream children("/proc/" + pid + "/task/" + pid + "/children");
    for (std::string child; children >> child;) {
      std::ifstream maps("/proc/" + child + "/maps");
      for (std::string line; std::getline(maps, line);) {
        if (line.find("orvane-") != std::string::npos &&
            line.find("-" + pid + "_") != std::string::npos) {
          return std::stoi(child);
        }
      }
    }
    throw std::runtime_error("no process serves the lease");
  }

  // Makes the command wait for room in a ring of 8 MiB, whose worker is stopped.
  static void fillRing(Server& started, const Process& send) {
    ASSERT_TRUE(eventually([&] { return started.streams().size() == 1; }));
    const pid_t worker = started.process().workerOfRing();
    kill(worker, SIGSTOP);
    const std::string state = "/proc/" + std::to_string(worker) + "/stat";
    ASSERT_TRUE(eventually([&] { return contains(readFile(state), ") T "); }));
    send.write(std::string(8388608, 'x'));
    awaitSleep(send.pid());
  }

  // Makes the command wait for room in the queue, for what serves it is told to stop.
  void fillQueue(const Server& started, const Process& send,
                 const std::function<void()>& stopServing) const {
    using Queue = boost::interprocess::message_queue;
    ASSERT_TRUE(eventually([&] { return started.streams().size() == 1; }));
    stopServing();
    const std::string state = "/proc/" + std::to_string(workerOf(started)) + "/stat";
    ASSERT_TRUE(eventually([&] { return contains(readFile(state), ") T "); }));
    // Behind its totals.
    const std::string leased = sharedMemoryNamed("-" + std::to_string(started.pid()) + "_").at(1);
    const Queue queue(boost::interprocess::open_only, leased.c_str());
    // All of it is read: eight messages, one that finds no room, and a record behind it.
    send.write(std::string(9 * 1048576 + 131072, 'x'));
    // A look takes the queue's lock, so it is taken only while the command pauses.
    ASSERT_TRUE(eventually([&] {
      return systemCallOf(send.pid()) == SYS_ppoll && queue.get_num_msg() == queue.get_max_msg();
    }));
  }
};

// Any other server that starts meanwhile cleans up after the dead one, and may say so first.
testing::AssertionResult tellsOfDeadServer(const std::string& text) {
  return matches(text,
                 "orvane send: while sending standard input \\(0 of 1 file stored\\): "
                 "(orvaned ended the lease without a receipt for the stream"
                 "|the stream may be lost: .*)\n");
}

TEST_F(SendOverALease, FilesAreStored) {
  Server server({"--socket", socket});
  writeFile(folder.path() + "/a", "first");
  writeFile(folder.path() + "/b", std::string(3000000, 'b'));

  const Ended ended =
      run(sendCommand({folder.path() + "/a", "-", folder.path() + "/b"}), "from a pipe");

  EXPECT_EQ(ended.how, "exit 0") << ended.err;
  EXPECT_TRUE(startsWith(ended.out, "stored 3 files, 3000016 bytes, 3 segments, ")) << ended.out;
  ASSERT_EQ(server.streams().size(), 3u);
  EXPECT_EQ(server.content(0), "first");
  EXPECT_EQ(server.content(1), "from a pipe");
  EXPECT_EQ(server.content(2), std::string(3000000, 'b'));
  EXPECT_TRUE(startsWith(server.fact(0, "queue"), "orvane-"));
  EXPECT_TRUE(ended.out.ends_with(", streams " + server.fact(0, "stream") + " to " +
                                  server.fact(2, "stream") + "\n"))
      << ended.out;
}

TEST_F(SendOverALease, MissingServerIsReported) {
  const Ended ended = run(sendCommand({"/dev/null"}));

  EXPECT_EQ(ended.how, "exit 1");
  EXPECT_EQ(ended.err, "orvane send: got no lease: No server to ask for a lease at " + socket +
                           ": No such file or directory; is it running, and may this user "
                           "connect?\n");
}

TEST_F(SendOverALease, RefusedLeaseIsReportedWithTheServersReason) {
  Server server({"--socket", socket, "--pairs-per-user", "1"});
  const Lease mine(socket, 30);

  const Ended ended = run(sendCommand({"/dev/null"}));

  EXPECT_EQ(ended.how, "exit 1");
  EXPECT_EQ(ended.err,
            "orvane send: got no lease: user " + std::to_string(geteuid()) +
                " has 1 leases, as many as it may: end one, or start orvaned with a larger "
                "--pairs-per-user\n");
}

TEST_F(SendOverALease, StreamThatCannotBeStoredIsReportedAsRefused) {
  Server server({"--socket", socket}, {.fileSizeLimit = 9 << 20});

  const Ended ended = run(sendCommand({"-"}), std::string(10 << 20, 'x'));

  EXPECT_EQ(ended.how, "exit 3");
  EXPECT_EQ(ended.out, "");
  EXPECT_TRUE(contains(ended.err, "orvaned refused the stream: File too large")) << ended.err;
}

TEST_F(SendOverALease, WorkerThatDiesLeavesTheOutcomeUnknown) {
  Server server({"--socket", socket});
  Process send(sendCommand({"-"}));
  ASSERT_TRUE(eventually([&] { return server.streams().size() == 1; }));
  kill(server.process().workerOfRing(), SIGKILL);
  ASSERT_TRUE(eventually([&] { return contains(server.log(), "was killed by signal 9"); }));

  send.write("a few bytes");
  const Ended ended = send.wait();

  EXPECT_EQ(ended.how, "exit 4");
  EXPECT_EQ(ended.out, "");
  EXPECT_TRUE(contains(ended.err, "what served the queue died")) << ended.err;
  EXPECT_EQ(run(sendCommand({"/dev/null"})).how, "exit 0") << "the next one is served";
}

TEST_F(SendOverALease, ServerThatDiesIsNoticedBeforeTheTimeout) {
  Server server({"--socket", socket});
  Process send(sendCommand({"--timeout", "3600", "-"}));
  ASSERT_TRUE(eventually([&] { return server.streams().size() == 1; }));
  server.process().signalAll(SIGKILL);
  ASSERT_TRUE(eventually([&] { return !server.process().isRunning(); }));

  send.write("a few bytes");
  const Ended ended = send.wait();

  EXPECT_EQ(ended.how, "exit 4");
  EXPECT_TRUE(tellsOfDeadServer(ended.err));
}

TEST_F(SendOverALease, WorkerThatDiesEndsTheWaitForRoomWithTheServersWord) {
  Server server({"--socket", socket});
  Process send(sendCommand({"--transport", "queue", "--timeout", "3600", "-"}));
  fillQueue(server, send, [&] { kill(workerOf(server), SIGSTOP); });

  kill(workerOf(server), SIGKILL);
  ASSERT_TRUE(eventually([&] { return send.hasEnded(); }));

  const Ended ended = send.wait();
  EXPECT_EQ(ended.how, "exit 4");
  EXPECT_TRUE(contains(ended.err, "the stream may be lost: what served the queue died"))
      << ended.err;
}

TEST_F(SendOverALease, ServerThatDiesEndsTheWaitForRoom) {
  Server server({"--socket", socket});
  Process send(sendCommand({"--transport", "queue", "--timeout", "3600", "-"}));
  fillQueue(server, send, [&] { server.process().signalAll(SIGSTOP); });

  server.process().signalAll(SIGKILL);
  ASSERT_TRUE(eventually([&] { return send.hasEnded(); }));

  const Ended ended = send.wait();
  EXPECT_EQ(ended.how, "exit 4");
  EXPECT_TRUE(tellsOfDeadServer(ended.err));
}

class Transports : public SendOverALease, public testing::WithParamInterface<const char*> {};

TEST_P(Transports, AreNamedAndShowInTheServersLog) {
  const std::string transport = GetParam();
  Server server({"--socket", socket});

  const Ended ended = run(sendCommand({"--transport", transport, "-"}), std::string(3000000, 'b'));

  EXPECT_EQ(ended.how, "exit 0") << ended.err;
  EXPECT_EQ(server.content(0), std::string(3000000, 'b'));
  const std::string expected = transport == "queue" ? "serving queue " : "serving ring ";
  EXPECT_TRUE(contains(server.log(), expected + server.fact(0, "queue") + " for user "));
}

INSTANTIATE_TEST_SUITE_P(SendOverALease, Transports, testing::Values("auto", "ring", "queue"));

TEST_F(SendOverALease, ARingIsUsedByDefault) {
  Server server({"--socket", socket});

  EXPECT_EQ(run(sendCommand({"/dev/null"})).how, "exit 0");

  EXPECT_TRUE(contains(server.log(), "serving ring orvane-"));
}

constexpr char kOldRefusal[] = "refused 1007 this server understands \"orvane 1 lease\"";

TEST_F(SendOverALease, AServerWithoutRingsIsAskedForAQueue) {
  FakeServer server;
  server.serveEach({{.says = {kOldRefusal}},
                    {.says = {kOldRefusal}},
                    {.says = {kOldRefusal}},
                    {.says = {"refused 1005 no more"}, .ends = true}});

  const Ended ended = run({ORVANE_PATH, "send", "--socket", server.path(), "/dev/null"});

  EXPECT_EQ(ended.how, "exit 1");
  EXPECT_EQ(ended.err, "orvane send: got no lease: no more\n");
  EXPECT_EQ(server.requests(),
            (std::vector<std::string>{"orvane 1 ring 8388608 label=null", "orvane 1 ring 8388608",
                                      "orvane 1 lease label=null", "orvane 1 lease"}));
}

TEST_F(SendOverALease, AServerWithoutRingsIsNotAskedForAQueueIfARingIsWanted) {
  FakeServer server;
  server.serve({.says = {kOldRefusal}, .ends = true});

  const Ended ended =
      run({ORVANE_PATH, "send", "--socket", server.path(), "--transport", "ring", "-"});

  EXPECT_EQ(ended.how, "exit 1");
  EXPECT_EQ(ended.err, "orvane send: got no lease: this server understands \"orvane 1 lease\"\n");
  EXPECT_EQ(server.requests(), (std::vector<std::string>{"orvane 1 ring 8388608"}));
}

TEST_F(SendOverALease, WorkerThatDiesEndsTheWaitForRoomInARingWithTheServersReason) {
  Server server({"--socket", socket});
  Process send(sendCommand({"--timeout", "3600", "-"}));
  fillRing(server, send);

  kill(server.process().workerOfRing(), SIGKILL);
  ASSERT_TRUE(eventually([&] { return send.hasEnded(); }));

  const Ended ended = send.wait();
  EXPECT_EQ(ended.how, "exit 4");
  EXPECT_TRUE(contains(ended.err, "the stream may be lost: what served the queue died"))
      << ended.err;
}

TEST_F(SendOverALease, ARingThatStaysFullTimesOut) {
  Server server({"--socket", socket});
  Process send(sendCommand({"--timeout", "2", "-"}));
  fillRing(server, send);

  ASSERT_TRUE(eventually([&] { return send.hasEnded(); }));
  kill(server.process().workerOfRing(), SIGCONT);

  const Ended ended = send.wait();
  EXPECT_EQ(ended.how, "exit 4");
  EXPECT_EQ(ended.err,
            "orvane send: while sending standard input (0 of 1 file stored): orvaned has taken "
            "nothing for 2 s: is it still running?\n");
}

TEST_F(SendOverALease, InterruptionEndsTheWaitForRoomInARingAndStopsTheStream) {
  Server server({"--socket", socket});
  Process send(sendCommand({"--timeout", "3600", "-"}));
  fillRing(server, send);
  const Stopwatch watch;

  send.signal(SIGINT);
  ASSERT_TRUE(eventually([&] { return send.hasEnded(); }));

  EXPECT_LT(watch.seconds(), 30);
  kill(server.process().workerOfRing(), SIGCONT);
  const Ended ended = send.wait();
  EXPECT_EQ(ended.how, "signal 2");
  EXPECT_TRUE(contains(ended.err, "interrupted while sending standard input")) << ended.err;
  EXPECT_TRUE(eventually([&] { return server.fact(0, "end") == "stopped"; }))
      << "the ring has no room for a record, but for a stop";
}

TEST_F(SendOverALease, InterruptionCutsTheStreamOff) {
  Server server({"--socket", socket});
  Process send(sendCommand({"-"}));
  send.write("a few bytes");
  ASSERT_TRUE(eventually([&] { return server.streams().size() == 1; }));

  send.signal(SIGINT);
  ASSERT_TRUE(eventually([&] { return send.hasEnded(); }));

  EXPECT_EQ(send.wait().how, "signal 2");
  EXPECT_TRUE(eventually([&] { return server.fact(0, "end") == "stopped"; }));
}

TEST(SendWithAnEnvironment, UsesItsSocketIfNoOtherIsNamed) {
  const TempFolder folder;
  const std::string socket = folder.path() + "/socket";
  Server server({"--socket", socket});
  writeFile(folder.path() + "/file", "hello");
  const std::string file = folder.path() + "/file";
  const auto send = [](std::vector<std::string> words, const std::string& environment) {
    words.insert(words.begin(), {ORVANE_PATH, "send"});
    return run(words, "", {.environment = {"ORVANE_SOCKET=" + environment}});
  };

  const Ended ended = send({file}, socket);
  EXPECT_EQ(ended.how, "exit 0") << ended.err;
  EXPECT_EQ(server.content(0), "hello");
  EXPECT_EQ(send({"--socket", socket, file}, "/nowhere").how, "exit 0");
  EXPECT_TRUE(contains(send({"--queue", "orvane-no-such-queue", file}, socket).err,
                       "orvane-no-such-queue"));
  EXPECT_TRUE(contains(send({file}, "/nowhere").err, "/nowhere"));
  EXPECT_TRUE(contains(send({file}, "").err, "--queue NAME or --socket PATH is required"));
}

TEST(WriterOnALease, StoresItsRecordAndPrintsTheReceipt) {
  const TempFolder folder;
  const std::string socket = folder.path() + "/socket";
  Server server({"--socket", socket});

  const Ended ended = run({WRITER_LEASE_PATH, socket});

  EXPECT_EQ(ended.how, "exit 0") << ended.err;
  EXPECT_EQ(ended.out, "receipt stream=" + server.fact(0, "stream") +
                           " records=1 bytes=20 segments=1 end=closed\n");
  EXPECT_EQ(server.content(0), "14 crates of oranges");
}

}  // namespace
}  // namespace orvane::test
