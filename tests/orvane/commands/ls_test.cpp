#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <filesystem>
#include <sstream>

#include "support/eventually.hpp"
#include "support/queue_pair.hpp"
#include "support/server.hpp"
#include "support/text.hpp"

namespace orvane::test {
namespace {

// Other tests' queues are listed too.
std::string lineOf(const std::string& name, const std::string& text) {
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with(name + " ") || contains(line, R"({"queue":")" + name + "\"")) {
      return line;
    }
  }
  return "not listed";
}

std::string listed(const std::string& name, const std::vector<std::string>& options = {}) {
  std::vector<std::string> command = {ORVANE_PATH, "ls"};
  command.insert(command.end(), options.begin(), options.end());
  const Ended ended = run(command);
  EXPECT_EQ(ended.how, "exit 0");
  EXPECT_EQ(ended.err, "");
  return lineOf(name, ended.out);
}

std::string user() {
  const std::string name = run({"id", "-un"}).out;
  return name.substr(0, name.size() - 1);
}

class TidyFile {
 public:
  explicit TidyFile(const std::string& name) : path("/dev/shm/" + name) {}
  ~TidyFile() { std::filesystem::remove(path); }
  TidyFile(const TidyFile&) = delete;
  TidyFile& operator=(const TidyFile&) = delete;

  const std::string path;
};

TEST(Ls, ShowsAServedQueue) {
  Server server({"--messages", "4", "--message-size", "1000", "--mode", "0640"});

  EXPECT_TRUE(matches(listed(server.queue()), server.queue() + " +5.47 kB +4 x 1000 +0640 +" +
                                                  user() + " +" + std::to_string(server.pid())));
}

TEST(Ls, AlignsItsColumns) {
  Server server;
  QueuePair queues;
  const std::string out = run({ORVANE_PATH, "ls"}).out;

  const std::string head = out.substr(0, out.find('\n'));
  EXPECT_TRUE(matches(head, "NAME +SIZE +MESSAGES +MODE +OWNER +SERVER"));
  const std::string served = lineOf(server.queue(), out);
  const std::string other = lineOf(queues.name(), out);
  EXPECT_EQ(served.substr(head.find("MESSAGES"), 12), "8 x 1048968 ");
  EXPECT_EQ(other.substr(head.find("MESSAGES"), 12), "-           ");
  EXPECT_EQ(served.substr(head.find("MODE"), 6), "0600  ");
  EXPECT_EQ(other.substr(head.find("MODE"), 6), "0644  ");
  EXPECT_EQ(served.substr(head.find("SERVER")), std::to_string(server.pid()));
  EXPECT_EQ(other.substr(head.find("SERVER")), "-");
}

TEST(Ls, SaysWhenNobodyServesAQueueAnyMore) {
  Server server;
  server.process().signalAll(SIGKILL);
  ASSERT_TRUE(eventually([&] { return listed(server.queue()).ends_with(" nobody"); }));

  const std::string json = listed(server.queue(), {"--json"});
  EXPECT_TRUE(contains(json,
                       ",\"messages\":8,\"messageSize\":1048968,\"served\":false,"
                       "\"server\":null}"));
}

TEST(Ls, PrintsJson) {
  Server server({"--messages", "4", "--message-size", "1000"});
  QueuePair queues;

  const std::string pid = std::to_string(server.pid());
  const std::string served = listed(server.queue(), {"--json"});
  EXPECT_TRUE(contains(served, "{\"queue\":\"" + server.queue() +
                                   "\",\"bytes\":5472,\"mode\":\"0600\",\"owner\":\"" + user() +
                                   "\",\"messages\":4,\"messageSize\":1000,\"served\":true,"
                                   "\"server\":" +
                                   pid + "}"));
  const std::string other = listed(queues.name(), {"--json"});
  EXPECT_TRUE(contains(other,
                       "\"messages\":null,\"messageSize\":null,\"served\":null,"
                       "\"server\":null}"));
  const std::string all = run({ORVANE_PATH, "ls", "--json"}).out;
  EXPECT_TRUE(all.starts_with("{") && all.ends_with("}\n")) << all;
  EXPECT_FALSE(contains(all, ",\n"));
}

TEST(Ls, ListsNothingThatIsNoQueue) {
  Server server;
  const TidyFile alone(uniqueQueueName());
  const TidyFile strange("." + uniqueQueueName());
  const TidyFile strangeResponse(strange.path.substr(9) + "Response");
  const TidyFile forATerminal(uniqueQueueName() + "\x1b[2J");
  const TidyFile forATerminalResponse(forATerminal.path.substr(9) + "Response");
  for (const TidyFile* file :
       {&alone, &strange, &strangeResponse, &forATerminal, &forATerminalResponse}) {
    writeFile(file->path, "");
  }

  const std::string out = run({ORVANE_PATH, "ls"}).out;

  EXPECT_FALSE(contains(out, alone.path.substr(9)));
  EXPECT_FALSE(contains(out, "\n."));
  EXPECT_FALSE(contains(out, "\x1b"));
  EXPECT_FALSE(contains(out, server.queue() + "Response"));
}

// Whoever opens a pipe waits for its other end.
TEST(Ls, DoesNotWaitForWhatAStrangerHasForTotals) {
  QueuePair queues;
  const TidyFile pipe("." + queues.name() + ".stats");
  ASSERT_EQ(mkfifo(pipe.path.c_str(), 0600), 0);

  EXPECT_TRUE(listed(queues.name()).ends_with(" -"));
}

TEST(Ls, TakesNoArguments) {
  EXPECT_EQ(run({ORVANE_PATH, "ls", "orders"}).how, "exit 2");
}

}  // namespace
}  // namespace orvane::test
