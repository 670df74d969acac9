// orvaned --capture: what it writes, and that it disturbs nothing.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <queue/message_queue.hpp>

#include "support/captured.hpp"
#include "support/eventually.hpp"
#include "support/queue_pair.hpp"
#include "support/server.hpp"
#include "support/text.hpp"

namespace orvane::test {
namespace {

std::size_t count(const std::string& text, const std::string& part) {
  std::size_t found = 0;
  for (std::size_t at = 0; (at = text.find(part, at)) != std::string::npos; ++at) {
    ++found;
  }
  return found;
}

class Capture : public testing::Test {
 protected:
  static void send(const Server& server, const Bytes& message) {
    using boost::interprocess::message_queue;
    message_queue queue(boost::interprocess::open_only, server.queue().c_str());
    queue.send(message.data(), message.size(), 1);
  }

  // Starts a server that is to refuse the file.
  void expectRefusal(const std::string& reason) const {
    const std::string queue = uniqueQueueName();
    const Ended ended =
        run({ORVANED_PATH, "--queue", queue, "--store", folder.path(), "--capture", file});
    EXPECT_EQ(ended.how, "exit 1");
    EXPECT_TRUE(
        contains(ended.err, " error 1 orvaned::main: cannot capture into " + file + ": " + reason +
                                ": --capture needs a file that the server can append to\n"));
    EXPECT_EQ(sharedMemoryNamed(queue), std::vector<std::string>{});
  }

  const TempFolder folder;
  const std::string file = folder.path() + "/capture";
};

TEST_F(Capture, HoldsEveryMessageAsItCameGoodOrBad) {
  Server server({"--capture", file});

  send(server, bytesOf("rubbish!"));
  send(server, kExample);
  send(server, bytesOf("x"));

  const std::string expected = captured(server.queue(), bytesOf("rubbish!")) +
                               captured(server.queue(), kExample) +
                               captured(server.queue(), bytesOf("x"));
  EXPECT_TRUE(eventually([&] { return readFile(file) == expected; }));
  struct stat status = {};
  ASSERT_EQ(stat(file.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0600U);
}

TEST_F(Capture, ContinuesAFileThatIsThere) {
  const std::string before = captured("earlier", kExample);
  writeFile(file, before);
  Server server({"--capture", file});

  send(server, kExample);

  const std::string expected = before + captured(server.queue(), kExample);
  EXPECT_TRUE(eventually([&] { return readFile(file) == expected; }));
}

TEST_F(Capture, KeepsTheMessagesOfSeveralQueuesApart) {
  const std::string socket = folder.path() + "/socket";
  Server server({"--socket", socket, "--capture", file});
  const std::vector<std::string> command = {ORVANE_PATH, "send", "--socket", socket, "-"};
  Process first(command);
  Process second(command);
  for (int i = 0; i < 20; ++i) {
    first.write(std::string(400000, 'a'));
    second.write(std::string(400000, 'b'));
  }
  EXPECT_EQ(first.wait().how, "exit 0");
  EXPECT_EQ(second.wait().how, "exit 0");

  const Ended ended = run({ORVANE_PATH, "dump", file});

  EXPECT_EQ(ended.how, "exit 0") << ended.err;
  EXPECT_EQ(count(ended.out, "]: type=0, len=0 "), 2U);
  EXPECT_EQ(count(ended.out, "]: type=3, len=0 "), 2U);
  EXPECT_EQ(count(ended.out, "]: type=1, len=131072, "), 2U * 61);
}

TEST_F(Capture, ThatFindsNoMoreRoomEndsWithOneWarningAndDisturbsNoStream) {
  const std::size_t limit = 9 << 20;  // the queues fit below it
  const std::string before(limit - 100, 'x');
  writeFile(file, before);
  Server server({"--capture", file}, {.fileSizeLimit = limit});

  const Ended ended = run(server.sendCommand({"-"}), std::string(300000, 'd'));

  EXPECT_EQ(ended.how, "exit 0") << ended.err;
  EXPECT_TRUE(server.content(0) == std::string(300000, 'd'));
  EXPECT_EQ(server.fact(0, "end"), "closed");
  EXPECT_EQ(count(server.log(), " capture::warn: "), 1U) << server.log();
  EXPECT_TRUE(contains(server.log(), " warning 0 capture::warn: queue " + server.queue() +
                                         ": capturing into " + file +
                                         " ends: it took only 100 of "));
  const std::string after = readFile(file);
  EXPECT_EQ(after.size(), limit);  // the part stays, and costs only itself: Dump tells the rest
  EXPECT_TRUE(after.starts_with(before));
  EXPECT_EQ(after.substr(before.size(), 4), "ORVC");
}

TEST_F(Capture, ThatBecomesImpossibleLaterEndsWithAWarningToo) {
  const std::string socket = folder.path() + "/socket";
  Server server({"--socket", socket, "--capture", file});
  std::filesystem::remove(file);
  std::filesystem::create_directory(file);

  const Ended ended = run({ORVANE_PATH, "send", "--socket", socket, "-"}, "data");

  EXPECT_EQ(ended.how, "exit 0") << ended.err;
  EXPECT_TRUE(contains(server.log(), ": capturing into " + file + " ends: Is a directory\n"));
}

TEST_F(Capture, NeedsAFileThatCanBeAppendedTo) {
  std::filesystem::create_directory(file);
  expectRefusal("Is a directory");
  std::filesystem::remove(file);
  ASSERT_EQ(mkfifo(file.c_str(), 0600), 0);
  expectRefusal("No such device or address");
}

TEST_F(Capture, TakesNoPipe) {
  ASSERT_EQ(mkfifo(file.c_str(), 0600), 0);
  const Process reader({"cat", file});
  ASSERT_TRUE(eventually([&] {
    const Ended ended = run(
        {ORVANED_PATH, "--queue", uniqueQueueName(), "--store", folder.path(), "--capture", file});
    return ended.err.find("it is no regular file") != std::string::npos;
  }));
}

}  // namespace
}  // namespace orvane::test
