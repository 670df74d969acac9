// What the real server tells the service manager that started it.

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "shm/fd.hpp"
#include "supervisor/service_manager.hpp"
#include "support/queue_pair.hpp"
#include "support/server_process.hpp"
#include "support/temp_folder.hpp"

namespace {

using orvane::test::QueueName;
using orvane::test::ServerProcess;
using orvane::test::TempFolder;
using orvane::test::uniqueQueueName;
using tool::Fd;

// A service manager: listens at a path, or with @ before it at a name outside the file system, and
// has it in the environment of what is started meanwhile.
class FakeManager {
 public:
  explicit FakeManager(const std::string& name)
      : fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, name.data(), name.size());
    if (name.front() == '@') {
      address.sun_path[0] = '\0';
    }
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
    EXPECT_EQ(bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), size), 0);
    setenv("NOTIFY_SOCKET", name.c_str(), 1);
  }
  ~FakeManager() { unsetenv("NOTIFY_SOCKET"); }
  FakeManager(const FakeManager&) = delete;
  FakeManager& operator=(const FakeManager&) = delete;

  // The next message, within the test's patience.
  std::string await() const {
    pollfd waiting{fd.get(), POLLIN, 0};
    return poll(&waiting, 1, 30000) == 1 ? next() : "no message came";
  }

  // The next message, if it is there.
  std::string next() const {
    char text[64] = {};
    const ssize_t size = recv(fd.get(), text, sizeof(text), MSG_DONTWAIT);
    return size < 0 ? "" : std::string(text, static_cast<std::size_t>(size));
  }

 private:
  const Fd fd;
};

class ServiceManagerTest : public testing::Test {
 protected:
  const TempFolder folder;
  const TempFolder store;
  const QueueName name{uniqueQueueName()};
  const QueueName responseName{name.text() + "Response"};
  const std::string socketPath = folder.path() + "/socket";
};

TEST_F(ServiceManagerTest, IsToldWhenAllIsServedAndWhenTheEndBegins) {
  const FakeManager manager(folder.path() + "/notify");
  ServerProcess server({"--queue", name.text(), "--socket", socketPath, "--store", store.path()});
  EXPECT_EQ(manager.await(), "READY=1");
  EXPECT_EQ(access(("/dev/shm/" + name.text()).c_str(), F_OK), 0);
  EXPECT_EQ(access(socketPath.c_str(), F_OK), 0);
  server.signal(SIGTERM);
  EXPECT_EQ(manager.await(), "STOPPING=1");
  EXPECT_EQ(server.wait(), 0);
  EXPECT_EQ(manager.next(), "");
}

TEST_F(ServiceManagerTest, IsToldOfAServerThatOnlyLeases) {
  const FakeManager manager(folder.path() + "/notify");
  ServerProcess server({"--socket", socketPath, "--store", store.path()});
  EXPECT_EQ(manager.await(), "READY=1");
  server.signal(SIGTERM);
  EXPECT_EQ(manager.await(), "STOPPING=1");
  EXPECT_EQ(server.wait(), 0);
}

TEST_F(ServiceManagerTest, MayListenOutsideTheFileSystem) {
  const FakeManager manager("@" + name.text());
  ServerProcess server({"--queue", name.text(), "--store", store.path()});
  EXPECT_EQ(manager.await(), "READY=1");
  server.signal(SIGTERM);
  EXPECT_EQ(manager.await(), "STOPPING=1");
  EXPECT_EQ(server.wait(), 0);
}

TEST_F(ServiceManagerTest, IsNotToldThatAServerIsReadyWhoseQueueCannotBeMade) {
  const FakeManager manager(folder.path() + "/notify");
  ServerProcess server({"--queue", name.text(), "--store", store.path(), "--message-size",
                        "1000000000", "--messages", "4096"});
  EXPECT_EQ(server.wait(), 1);
  EXPECT_EQ(manager.next(), "STOPPING=1");
  EXPECT_EQ(manager.next(), "");
}

TEST_F(ServiceManagerTest, ThatIsGoneCostsTheServerNothing) {
  setenv("NOTIFY_SOCKET", (folder.path() + "/nobody").c_str(), 1);
  ServerProcess server({"--queue", name.text(), "--store", store.path()});
  unsetenv("NOTIFY_SOCKET");
  EXPECT_TRUE(server.isServing());
  server.signal(SIGTERM);
  EXPECT_EQ(server.wait(), 0);
}

TEST_F(ServiceManagerTest, IsKnownToTheServerAlone) {
  const FakeManager manager(folder.path() + "/notify");
  const orvaned::ServiceManager known;
  EXPECT_EQ(std::getenv("NOTIFY_SOCKET"), nullptr);
  known.notify("READY=1");
  EXPECT_EQ(manager.next(), "READY=1");
}

TEST_F(ServiceManagerTest, MayHaveTheLongestNameOfASocketButNoLongerOne) {
  std::string longest = "@" + name.text();
  longest.resize(108, 'x');
  const FakeManager manager(longest);
  orvaned::ServiceManager().notify("READY=1");
  EXPECT_EQ(manager.next(), "READY=1");
  setenv("NOTIFY_SOCKET", (longest + "x").c_str(), 1);
  orvaned::ServiceManager().notify("READY=1");
  EXPECT_EQ(manager.next(), "");
}

}  // namespace
