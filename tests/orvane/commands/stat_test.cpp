#include <gtest/gtest.h>
#include <signal.h>
#include <sys/syscall.h>

#include <filesystem>

#include "support/eventually.hpp"
#include "support/queue_pair.hpp"
#include "support/server.hpp"
#include "support/text.hpp"

namespace orvane::test {
namespace {

constexpr char kTime[] = "20[0-9]{2}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}Z";
constexpr char kSeconds[] = "[0-9]+\\.[0-9]{3}";
constexpr char kJsonSeconds[] = "[0-9]+\\.[0-9]{1,3}";  // without zeros at its end

std::vector<std::string> statCommand(const std::string& queue,
                                     const std::vector<std::string>& options) {
  std::vector<std::string> words = {ORVANE_PATH, "stat", queue};
  words.insert(words.end(), options.begin(), options.end());
  return words;
}

// The number behind `"name": `, the last one of that name.
double numberIn(const std::string& json, const std::string& name) {
  const std::string key = "\"" + name + "\":";
  return std::stod(json.substr(json.rfind(key) + key.size()));
}

TEST(Stat, ShowsTheTotals) {
  Server server;
  ASSERT_EQ(run(server.sendCommand({"-"}), "twelve bytes").how, "exit 0");

  const Ended ended = run(statCommand(server.queue(), {"--interval", "0"}));

  EXPECT_EQ(ended.how, "exit 0");
  EXPECT_EQ(ended.err, "");
  EXPECT_TRUE(matches(ended.out, "queue        " + server.queue() +
                                     ", 8 messages of 1048968 bytes\n"
                                     "served by    process " +
                                     std::to_string(server.pid()) + ", worker [0-9]+, since " +
                                     kTime +
                                     "\n"
                                     "open stream  none\n"
                                     "last batch   " +
                                     kSeconds +
                                     " s ago\n"
                                     "\n"
                                     "                            total\n"
                                     "batches                         [23]\n"
                                     "records                         1\n"
                                     "bytes                          12\n"
                                     "segments                        1\n"
                                     "streams                         1\n"
                                     "bad batches                     0\n"
                                     "error answers                   0\n"));
}

TEST(Stat, ShowsAQueueThatWasNotUsedYet) {
  Server server;

  const Ended ended = run(statCommand(server.queue(), {"--interval", "0", "--json"}));

  EXPECT_EQ(ended.how, "exit 0");
  EXPECT_TRUE(matches(ended.out,
                      "\\{\"queue\":\"" + server.queue() +
                          "\",\"messages\":8,\"messageSize\":1048968,\"served\":true,\"server\":" +
                          std::to_string(server.pid()) + ",\"worker\":[0-9]+,\"since\":\"" + kTime +
                          "\",\"uptime\":" + kJsonSeconds +
                          ",\"stream\":null,\"lastBatchAgo\":null,\"unreadReceipts\":0,"
                          "\"totals\":\\{\"batches\":0,\"records\":0,\"bytes\":0,\"segments\":0,"
                          "\"streams\":0,\"badBatches\":0,\"errorAnswers\":0\\},"
                          "\"interval\":null,\"perSecond\":null\\}\n"));
  EXPECT_TRUE(contains(run(statCommand(server.queue(), {"--interval", "0"})).out,
                       "\nlast batch   none yet\n"));
}

TEST(Stat, NamesTheOpenStream) {
  Server server;
  Process send(server.sendCommand({"-"}));
  ASSERT_TRUE(eventually([&] { return server.streams().size() == 1; }));
  const std::string folder = server.streams().at(0);
  const std::string stream = folder.substr(folder.rfind('/') + server.queue().size() + 2);

  ASSERT_TRUE(eventually([&] {
    return contains(run(statCommand(server.queue(), {"--interval", "0"})).out,
                    "\nopen stream  " + stream + "\n");
  }));
  EXPECT_TRUE(contains(run(statCommand(server.queue(), {"--interval", "0", "--json"})).out,
                       ",\"stream\":\"" + stream + "\",\"lastBatchAgo\":0."));
  EXPECT_EQ(send.wait().how, "exit 0");
}

// Between the two looks, however long that takes, exactly one file is sent.
TEST(Stat, TakesItsRatesFromTwoLooks) {
  Server server;
  ASSERT_EQ(run(server.sendCommand({"-"}), std::string(5000, 'x')).how, "exit 0");
  Process stat(statCommand(server.queue(), {"--interval", "0.3", "--json"}));
  const std::string systemCall = "/proc/" + std::to_string(stat.pid()) + "/syscall";
  ASSERT_TRUE(eventually([&] {
    return stat.hasEnded() ||
           readFile(systemCall).starts_with(std::to_string(SYS_clock_nanosleep) + " ");
  }));
  stat.signal(SIGSTOP);
  ASSERT_EQ(run(server.sendCommand({"-"}), std::string(1000, 'x')).how, "exit 0");
  stat.signal(SIGCONT);

  const Ended ended = stat.wait();

  EXPECT_EQ(ended.how, "exit 0");
  EXPECT_TRUE(contains(ended.out, "\"records\":2,\"bytes\":6000,\"segments\":2,"));
  const double seconds = numberIn(ended.out, "interval");
  EXPECT_GE(seconds, 0.3);
  EXPECT_NEAR(numberIn(ended.out, "bytes") * seconds, 1000, 10);
  EXPECT_NEAR(numberIn(ended.out, "streams") * seconds, 1, 0.01);
  EXPECT_EQ(numberIn(ended.out, "badBatches"), 0);
}

TEST(Stat, ShowsRatesBesideTheTotals) {
  Server server;

  const Ended ended = run(statCommand(server.queue(), {"--interval", "0.01"}));

  EXPECT_TRUE(contains(ended.out,
                       "\n                            total          per second\n"
                       "batches                         0                 0.0\n"));
}

TEST(Stat, AnswersThoughTheWholeServerIsStopped) {
  Server server;
  ASSERT_EQ(run(server.sendCommand({"-"}), "twelve bytes").how, "exit 0");
  server.process().signalAll(SIGSTOP);

  const Ended ended = run(statCommand(server.queue(), {"--interval", "0.01"}));

  EXPECT_EQ(ended.how, "exit 0");
  EXPECT_TRUE(contains(ended.out, "\nserved by    process " + std::to_string(server.pid()) + ","));
  EXPECT_TRUE(contains(ended.out, "\nbytes                          12                 0.0\n"));
}

TEST(Stat, ShowsTheLastTotalsOfAServerThatIsGone) {
  Server server;
  ASSERT_EQ(run(server.sendCommand({"-"}), "twelve bytes").how, "exit 0");
  server.process().signalAll(SIGKILL);
  const std::string text = "\nserved by    nobody: server " + std::to_string(server.pid()) +
                           " is gone; orvane clean removes what it left, or the next orvaned "
                           "there\n";
  ASSERT_TRUE(eventually([&] {
    return contains(run(statCommand(server.queue(), {"--interval", "0"})).out, text);
  }));

  // At once: nothing will change.
  const Ended ended = run(statCommand(server.queue(), {"--interval", "86400"}));
  EXPECT_TRUE(contains(ended.out, "\nbytes                          12\n"));
}

TEST(Stat, OfAQueueThatIsNotThereNamesThoseThatAre) {
  Server server;

  const Ended ended = run(statCommand("nobody-serves-this", {}));

  EXPECT_EQ(ended.how, "exit 1");
  EXPECT_EQ(ended.out, "");
  EXPECT_TRUE(startsWith(ended.err,
                         "orvane stat: no queue named nobody-serves-this: is orvaned running? "
                         "Queues here: "));
  EXPECT_TRUE(contains(ended.err, server.queue()));
}

TEST(Stat, OfAQueueWithoutTotalsSaysSo) {
  QueuePair queues;

  const Ended ended = run(statCommand(queues.name(), {}));

  EXPECT_EQ(ended.how, "exit 1");
  EXPECT_EQ(ended.out, "");
  EXPECT_EQ(ended.err, "orvane stat: the server of " + queues.name() +
                           " publishes no totals: is it an orvaned?\n");
}

TEST(Stat, RefusesTotalsThatItDoesNotUnderstand) {
  QueuePair queues;
  const QueueName guard("." + queues.name() + ".stats");
  const std::string path = "/dev/shm/" + guard.text();
  const std::string version2 = "orvstats" + std::string("\2\0\0\0\0\0\0\0", 8);
  const std::string version3 = "orvstats" + std::string("\3\0\0\0\0\0\0\0", 8);
  const std::string version1 = "orvstats" + std::string("\1\0\0\0\0\0\0\0", 8);
  const std::string otherMagic = "orvstatx" + std::string("\1\0\0\0\0\0\0\0", 8);
  for (const std::string& bytes :
       {std::string(), version1 + std::string(167, '\0'), version2 + std::string(224, '\0'),
        version3 + std::string(223, '\0'), otherMagic + std::string(168, '\0')}) {
    writeFile(path, bytes);
    const Ended ended = run(statCommand(queues.name(), {}));
    EXPECT_EQ(ended.how, "exit 1");
    EXPECT_EQ(ended.out, "");
    EXPECT_EQ(ended.err, "orvane stat: cannot read " + path +
                             ": it is half made, or of another version of orvaned\n");
  }
  writeFile(path, version1 + std::string(168, '\0'));
  EXPECT_EQ(run(statCommand(queues.name(), {})).how, "exit 0");
}

TEST(Stat, TakesEachTotalFromItsPlace) {
  QueuePair queues;
  const QueueName guard("." + queues.name() + ".stats");
  std::string bytes = "orvstats" + std::string(176, '\0');
  bytes[8] = 1;
  for (std::size_t offset = 16; offset <= 112; offset += 8) {
    bytes[offset] = static_cast<char>(offset);
  }
  writeFile("/dev/shm/" + guard.text(), bytes);

  const std::string out = run(statCommand(queues.name(), {"--json"})).out;

  EXPECT_TRUE(contains(out, R"(,"messages":32,"messageSize":40,"served":false,)"
                            R"("server":16,"worker":24,"since":"1970-01-01T00:00:00Z",)"));
  EXPECT_TRUE(contains(out, R"("totals":{"batches":64,"records":72,"bytes":80,)"
                            R"("segments":88,"streams":96,"badBatches":104,)"
                            R"("errorAnswers":112})"));
}

TEST(Stat, WrongUseIsExplained) {
  const auto usage = [](const std::vector<std::string>& arguments) {
    std::vector<std::string> command = {ORVANE_PATH, "stat"};
    command.insert(command.end(), arguments.begin(), arguments.end());
    const Ended ended = run(command);
    EXPECT_EQ(ended.out, "");
    return ended.how + ": " + ended.err;
  };
  const std::string begin = "exit 2: orvane stat: ";
  const std::string end = " (orvane stat --help shows the usage)\n";
  const std::string interval = begin + "--interval: must be seconds, 0 to 86400" + end;
  EXPECT_EQ(usage({}), begin + "NAME or --socket PATH is required" + end);
  EXPECT_EQ(usage({"a/b"}),
            begin +
                "the queue name holds a character that is not allowed: use letters, digits and "
                "_.-" +
                end);
  for (const char* seconds : {"-1", "86400.1", "nan", "1s", "x"}) {
    EXPECT_EQ(usage({"q", "--interval", seconds}), interval);
  }
}

}  // namespace
}  // namespace orvane::test
