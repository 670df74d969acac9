// A worker that a hostile producer has taken over: what can it do?

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <memory>
#include <system_error>
#include <tuple>

#include "support/break_in/attack.hpp"
#include "support/confined_child.hpp"
#include "support/queue_pair.hpp"
#include "support/temp_folder.hpp"
#include "worker/allowed_calls.hpp"

namespace orvane::test {
namespace {

using break_in::attack;
using break_in::AttackPlan;

uid_t serverUser(Rights rights) {
  return rights == Rights::root ? 0 : geteuid() == 0 ? kServerUser : geteuid();
}

// The user that a worker of such a server ends up as.
void becomeWorkerUser(Rights rights) {
  if (rights != Rights::root) {
    takeOn(rights);
  } else if (setresgid(kWorkerUser, kWorkerUser, kWorkerUser) != 0 ||
             setresuid(kWorkerUser, kWorkerUser, kWorkerUser) != 0) {
    throw std::system_error(errno, std::generic_category(), "setresuid");
  }
}

// A server's store, another lease's queue, sockets, another worker; and what a worker has. All of
// it is the server's user's.
class World {
 public:
  explicit World(Rights rights, bool victimIsWorker)
      : otherQueue(uniqueQueueName()), queueMade(otherQueue.text() + ".made") {
    const uid_t user = serverUser(rights);
    plan.store = folder.path();
    plan.otherStream = folder.path() + "/segment-000000";
    plan.otherQueue = "/dev/shm/" + otherQueue.text();
    writeFile(plan.otherStream, "stored");
    writeFile(plan.otherQueue, "queued");
    writeFile(capturePath(), "captured");
    for (const std::string& path :
         {folder.path(), plan.otherStream, plan.otherQueue, capturePath()}) {
      own(path, user);
    }
    listenAtPath(user);
    listenAtPort();
    plan.appendOnly = open(capturePath().c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
    socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, lease.data());
    plan.connection = lease[1];
    other = std::make_unique<IdleProcess>(
        [&] { victimIsWorker ? becomeWorkerUser(rights) : takeOn(rights); });
    plan.other = other->pid();
    plan.otherHandle = static_cast<int>(syscall(SYS_pidfd_open, plan.other, 0));
  }

  ~World() {
    for (const int fd :
         {listener, internet, plan.appendOnly, lease[0], lease[1], plan.otherHandle}) {
      close(fd);
    }
  }
  World(const World&) = delete;
  World& operator=(const World&) = delete;

  std::string state() const {
    const auto contentOf = [](const std::string& path) {
      return std::filesystem::exists(path) ? readFile(path) : "nothing";
    };
    std::string names;
    for (const std::string& name : namesIn(folder.path())) {
      names += " " + name;
    }
    return contentOf(plan.otherStream) + ", " + contentOf(plan.otherQueue) + ", " +
           contentOf(capturePath()) + ", " + (other->isAlive() ? "alive" : "dead") + "," + names;
  }

  AttackPlan plan;

 private:
  std::string capturePath() const { return folder.path() + "/capture"; }

  static void own(const std::string& path, uid_t user) {
    if (geteuid() == 0 && chown(path.c_str(), user, user) != 0) {
      throw std::system_error(errno, std::generic_category(), "chown");
    }
  }

  void listenAtPath(uid_t user) {
    plan.serverSocket = folder.path() + "/socket";
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    plan.serverSocket.copy(address.sun_path, sizeof(address.sun_path) - 1);
    listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
      throw std::system_error(errno, std::generic_category(), "bind");
    }
    listen(listener, 8);
    own(plan.serverSocket, user);
  }

  void listenAtPort() {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    internet = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (bind(internet, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
      throw std::system_error(errno, std::generic_category(), "bind");
    }
    listen(internet, 8);
    socklen_t length = sizeof(plan.internet);
    getsockname(internet, reinterpret_cast<sockaddr*>(&plan.internet), &length);
  }

  TempFolder folder;
  QueueName otherQueue;
  QueueName queueMade;
  int listener = -1;
  int internet = -1;
  std::array<int, 2> lease = {-1, -1};
  std::unique_ptr<IdleProcess> other;
};

constexpr char kUntouched[] = "stored, queued, captured, alive, capture segment-000000 socket";

// A supervisor with these rights, whose worker is taken over. `confine` comes before that.
std::string attackIn(World& world, Rights rights, const char* name,
                     const std::function<void(pid_t supervisor)>& confine) {
  return runInChild([&] {
    takeOn(rights);
    const pid_t supervisor = getpid();
    world.plan.supervisor = supervisor;
    const std::string how = runInChild([&] {
      confine(supervisor);
      return attack(name, world.plan);
    });
    const int number = std::stoi(how.substr(how.find(' ')));
    return how.starts_with("exit") ? number : 128 + number;
  });
}

using Case = std::tuple<Rights, bool, break_in::Attack>;  // with Landlock?

class BreakIn : public testing::TestWithParam<Case> {
 protected:
  const Rights rights = std::get<0>(GetParam());
  const bool landlock = std::get<1>(GetParam());
  const char* const name = std::get<2>(GetParam()).name;
};

class BreakInWithoutConfinement : public BreakIn {};

TEST_P(BreakInWithoutConfinement, Succeeds) {
  World world(rights, false);
  ASSERT_EQ(world.state(), kUntouched);
  EXPECT_EQ(attackIn(world, rights, name, [](pid_t) {}), "exit 0");
}

TEST_P(BreakIn, ComesToNothing) {
  World world(rights, true);
  const SharedNumber refusedCall;
  Confinement confinement = confinementOf(rights);
  confinement.landlock = landlock;
  const std::string how = attackIn(world, rights, name, [&](pid_t supervisor) {
    dropRights(confinement, supervisor);
    restrictCalls(confinement, refusedCall.get());
  });
  if (orvaned::instrumentationCalls().empty()) {
    EXPECT_EQ(how, "exit " + std::to_string(128 + SIGSYS));
    EXPECT_GE(*refusedCall.get(), 0);
  } else if (landlock) {
    EXPECT_NE(how, "exit 0");  // the wider list opens paths
  }
  if (orvaned::instrumentationCalls().empty() || landlock) {
    EXPECT_EQ(world.state(), kUntouched);
  }
}

std::string nameOf(const testing::TestParamInfo<Case>& info) {
  const auto& [rights, landlock, attack] = info.param;
  return nameOf(rights) + (landlock ? "_" : "_WithoutLandlock_") + attack.name;
}

INSTANTIATE_TEST_SUITE_P(As, BreakIn,
                         testing::Combine(testing::ValuesIn(rightsHere()), testing::Bool(),
                                          testing::ValuesIn(break_in::attacks().begin(),
                                                            break_in::attacks().end())),
                         nameOf);
INSTANTIATE_TEST_SUITE_P(As, BreakInWithoutConfinement,
                         testing::Combine(testing::ValuesIn(rightsHere()), testing::Values(false),
                                          testing::ValuesIn(break_in::attacks().begin(),
                                                            break_in::attacks().end())),
                         nameOf);

// The attack's namespace is in the names of its functions, and in what debuggers read.
bool holdsAttackCode(const std::string& program) {
  const std::string bytes = readFile(program);
  return bytes.find("break_in") != std::string::npos ||
         bytes.find("WritesAnotherStream") != std::string::npos;
}

TEST(AttackCode, IsInThisTestAndInNoShippedProgram) {
  EXPECT_TRUE(holdsAttackCode("/proc/self/exe"));
  for (const char* program : {ORVANED_PATH, ORVANE_PATH, LIBORVANE_PATH}) {
    EXPECT_FALSE(holdsAttackCode(program)) << program;
  }
}

}  // namespace
}  // namespace orvane::test
