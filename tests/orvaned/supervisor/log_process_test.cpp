// The real server with a standard error that nobody reads, and with users that make it log.

#include <fcntl.h>
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <fstream>
#include <stdexcept>

#include "standard_error.hpp"
#include "support/await.hpp"
#include "support/lease_fixture.hpp"

namespace {

using orvane::test::eventually;
using orvane::test::kClose;
using orvane::test::kEndOfSegment;
using orvane::test::kHello;
using orvane::test::kOpen;
using orvane::test::LeaseClient;
using orvane::test::LeasedProducer;
using orvane::test::linesOf;
using orvane::test::LogPipe;
using orvane::test::ServerProcess;
using orvane::test::sumBefore;

const char kDropped[] = " dropped: standard error did not take the lines of the log in time\n";

std::size_t singleRefusalsIn(const std::string& log) {
  std::size_t count = 0;
  for (const std::string& line : linesOf(log)) {
    const bool refusal = line.find(" leases::refuse: user ") != std::string::npos;
    count += refusal && line.find(" more line") == std::string::npos ? 1 : 0;
  }
  return count;
}

// Those that are only counted, too.
std::size_t refusalsIn(const std::string& log) {
  return singleRefusalsIn(log) + sumBefore(log, " more lines? like this") +
         sumBefore(log, " lines? w(?:as|ere) dropped");
}

class ServerLogLimitTest : public orvane::test::LeaseTest {
 protected:
  // Whose lines nobody reads yet.
  void startWithFullPipe(const Words& more = {}) {
    pipe.fill();
    server = std::make_unique<ServerProcess>(
        arguments(more), ServerProcess::Setup{.standardError = pipe.writingEnd()});
    ASSERT_TRUE(eventually([this] { return listens(); }));
  }

  bool listens() const {
    try {
      const LeaseClient client(socket);
      return true;
    } catch (const std::runtime_error&) {
      return false;
    }
  }

  // A lease, as soon as those before it have ended.
  std::unique_ptr<LeasedProducer> produce() const {
    std::unique_ptr<LeasedProducer> producer;
    eventually([&] {
      try {
        producer = std::make_unique<LeasedProducer>(socket);
      } catch (const boost::interprocess::interprocess_exception&) {  // it was refused
      }
      return producer != nullptr;
    });
    return producer;
  }

  static void expectServed(LeasedProducer& producer) {
    EXPECT_EQ(producer.queues.ask({kOpen, kHello, kEndOfSegment, kClose}).status, 0);
  }

  // Which a user with all its leases is.
  void refuse(int times) const {
    for (int n = 1; n < times; ++n) {
      LeaseClient(socket).ask();
    }
    EXPECT_TRUE(LeaseClient(socket).ask().starts_with("refused 1005 "));
  }

  // The server's process that writes the log; waits for one that is not `other`.
  pid_t logProcess(pid_t other = 0) const {
    const std::string pid = std::to_string(server->process());
    pid_t found = 0;
    eventually([&] {
      std::ifstream children("/proc/" + pid + "/task/" + pid + "/children");
      for (pid_t child = 0; found == 0 && children >> child;) {
        std::ifstream file("/proc/" + std::to_string(child) + "/comm");
        std::string name;
        found = file >> name && name == "orvaned-log" && child != other ? child : 0;
      }
      return found != 0;
    });
    return found;
  }

  LogPipe pipe;
};

TEST_F(ServerLogLimitTest, SigtermIsObeyedWhileNobodyReadsStandardError) {
  startWithFullPipe();
  expectServed(*produce());
  server->signal(SIGTERM);
  EXPECT_EQ(server->wait(), 0);
}

TEST_F(ServerLogLimitTest, ProducersAreServedWhileNobodyReadsStandardError) {
  startWithFullPipe({"--pairs-per-user", "1"});
  const auto producer = produce();
  refuse(5000);  // more lines than all buffers hold
  expectServed(*producer);
}

TEST_F(ServerLogLimitTest, AStandardErrorThatNobodyReadsKeepsItsFlags) {
  const int flags = fcntl(pipe.writingEnd(), F_GETFL);
  startWithFullPipe();
  expectServed(*produce());
  EXPECT_EQ(fcntl(pipe.writingEnd(), F_GETFL), flags);
  server->signal(SIGTERM);
  server->wait();
  EXPECT_EQ(fcntl(pipe.writingEnd(), F_GETFL), flags);
}

// A write to a disk that hangs does not return: to the server, that is a process that is stopped.
TEST_F(ServerLogLimitTest, WhatWasDroppedWhileADiskHangsIsCounted) {
  start({"--pairs-per-user", "1"});
  const LeasedProducer producer(socket);
  ASSERT_TRUE(server->says("serving queue "));
  const pid_t log = logProcess();
  orvane::test::stop(log);
  refuse(10'000);
  kill(log, SIGCONT);
  ASSERT_TRUE(server->says(kDropped));
  server->signal(SIGTERM);
  EXPECT_EQ(server->wait(), 0);
  EXPECT_EQ(refusalsIn(server->output()), 10'000U);
  EXPECT_GT(sumBefore(server->output(), " lines? w(?:as|ere) dropped"), 0U);
}

TEST_F(ServerLogLimitTest, OfAHundredThousandRefusedRequestsTwentyInASecondAreALineEach) {
  const auto begin = std::chrono::steady_clock::now();
  server =
      std::make_unique<ServerProcess>(arguments({"--pairs-per-user", "1"}),
                                      ServerProcess::Setup{.standardError = pipe.writingEnd()});
  pipe.closeWritingEnd();
  pipe.readUntil("serving leases at ");
  const LeasedProducer producer(socket);
  for (int n = 0; n < 100; ++n) {
    refuse(1000);
    pipe.readAll();
  }
  const std::chrono::duration<double> time = std::chrono::steady_clock::now() - begin;
  server->signal(SIGTERM);
  const std::string log = pipe.readToTheEnd();
  EXPECT_LE(singleRefusalsIn(log), 20 * (static_cast<std::size_t>(time.count()) + 2));
  EXPECT_EQ(refusalsIn(log), 100'000U);
}

TEST_F(ServerLogLimitTest, AKilledLogProcessIsReplaced) {
  start();
  const pid_t first = logProcess();
  ASSERT_GT(first, 0);
  kill(first, SIGKILL);
  ASSERT_GT(logProcess(first), 0);
  LeaseClient(socket).send("rubbish");
  EXPECT_TRUE(server->says("this server understands"));
}

TEST_F(ServerLogLimitTest, CtrlCLosesNoLastLine) {
  start();
  const LeasedProducer producer(socket);
  kill(-server->process(), SIGINT);  // as a terminal sends it, to all processes
  EXPECT_EQ(server->wait(), 0);
  EXPECT_TRUE(server->output().ends_with("TIME info 0 orvaned::serve: stopped serving queue " +
                                         producer.name + ": the server was stopped\n"))
      << server->output();
}

TEST_F(ServerLogLimitTest, AKilledServerLeavesNoLogProcess) {
  start();
  server->signal(SIGKILL);
  server->wait();  // until nobody has its standard error
}

}  // namespace
