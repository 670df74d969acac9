// Where a server may listen, and what is there after it.

#include <csignal>
#include <filesystem>

#include "support/lease_fixture.hpp"
#include "support/queue_pair.hpp"

namespace orvane::test {
namespace {

namespace fs = std::filesystem;

class LeaseSocketTest : public LeaseTest {
 protected:
  // Starts a server that is to end by itself, at another path.
  void expectRefusal(const std::string& path, const std::string& reason) {
    ServerProcess refused({"--socket", path, "--store", store.path()});
    const std::string run = "-" + std::to_string(refused.process());
    EXPECT_EQ(refused.wait(), 1);
    EXPECT_EQ(refused.output(), "TIME error 1 orvaned::main: " + reason + "\n");
    EXPECT_EQ(namesIn(store.path()), Words{});
    for (const std::string& name : namesIn("/dev/shm")) {
      EXPECT_FALSE(name.ends_with(run + ".lock")) << name;
    }
  }
};

TEST_F(LeaseSocketTest, LeavesAPlainFileAlone) {
  writeFile(socket, "mine");
  expectRefusal(socket,
                "cannot listen at " + socket + ": it is there and is no socket: take another path");
  EXPECT_EQ(readFile(socket), "mine");
  EXPECT_EQ(namesIn(folder.path()), Words{"socket"});
}

TEST_F(LeaseSocketTest, LeavesAFolderAlone) {
  fs::create_directory(socket);
  expectRefusal(socket,
                "cannot listen at " + socket + ": it is there and is no socket: take another path");
  EXPECT_TRUE(fs::is_directory(socket));
  EXPECT_EQ(namesIn(folder.path()), Words{"socket"});
}

TEST_F(LeaseSocketTest, TakesThePathsThatASocketCanHave) {
  const std::string longest = socket + std::string(107 - socket.size(), 'x');
  expectRefusal(longest + "x", "cannot listen at " + longest +
                                   "x: a socket's path has 1 to 107 bytes: use a shorter one");
  EXPECT_EQ(namesIn(folder.path()), Words{});
  ServerProcess taken({"--socket", longest, "--store", store.path()});
  EXPECT_TRUE(taken.says("serving leases at " + longest + ", storing into "));
  EXPECT_TRUE(LeaseClient(longest).ask().starts_with("orvane-"));
}

TEST_F(LeaseSocketTest, NamesAFolderThatIsNotThere) {
  const std::string path = folder.path() + "/none/socket";
  expectRefusal(path, "cannot lock " + path + ".lock: No such file or directory");
}

TEST_F(LeaseSocketTest, ASecondServerLeavesTheFirstAlone) {
  start();
  LeasedProducer producer(socket);
  expectRefusal(socket, "another orvaned, process " + std::to_string(server->process()) +
                            ", holds " + socket + ".lock");
  EXPECT_EQ(producer.queues.ask({kOpen, kClose}).status, 0);
  EXPECT_TRUE(producer.client.next().starts_with("receipt "));
  EXPECT_TRUE(LeaseClient(socket).ask().starts_with("orvane-"));
}

TEST_F(LeaseSocketTest, ADeadServersSocketIsReplaced) {
  start();
  server->killAll();
  EXPECT_EQ(server->wait(), -SIGKILL);
  EXPECT_EQ(namesIn(folder.path()), (Words{"socket", "socket.lock"}));
  EXPECT_THROW(LeaseClient{socket}, std::system_error);
  start();
  EXPECT_TRUE(LeaseClient(socket).ask().starts_with("orvane-"));
  server->signal(SIGTERM);
  EXPECT_EQ(server->wait(), 0);
  EXPECT_EQ(namesIn(folder.path()), Words{});
}

TEST_F(LeaseSocketTest, AFixedNameIsServedBesideTheLeases) {
  const QueueName name(uniqueQueueName());
  start({"--queue", name.text()});
  ASSERT_TRUE(server->says("serving queue " + name.text() + " (8 messages"));
  Producer fixed(name.text());
  LeasedProducer leased(socket);
  EXPECT_EQ(fixed.ask({kOpen, kHello, kClose}).status, 0);
  EXPECT_EQ(leased.queues.ask({kOpen, kClose}).status, 0);
  EXPECT_EQ(leased.client.next(),
            "receipt stream=" + streamOf(leased.name) + " records=0 bytes=0 segments=0 end=closed");
  EXPECT_EQ(endingOf(name.text()), "end=closed\nreason=\n");
  server->signal(SIGTERM);
  EXPECT_EQ(server->wait(), 0);
  EXPECT_EQ(sharedMemoryOf(name.text()), Words{});
}

}  // namespace
}  // namespace orvane::test
