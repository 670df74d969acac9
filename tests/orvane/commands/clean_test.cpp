// What really removes something is told a name here: other tests have servers that are gone, too.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "shm/fd.hpp"
#include "support/eventually.hpp"
#include "support/queue_pair.hpp"
#include "support/server.hpp"
#include "support/text.hpp"

namespace orvane::test {
namespace {

namespace fs = std::filesystem;
using Names = std::vector<std::string>;

constexpr char kNothing[] = "nothing to remove: no server that is gone left anything\n";
constexpr char kNobody[] = "4194305";  // no process can have this number

std::string cleaned(const std::string& name, const std::vector<std::string>& options = {}) {
  std::vector<std::string> command = {ORVANE_PATH, "clean", name};
  command.insert(command.end(), options.begin(), options.end());
  const Ended ended = run(command);
  EXPECT_EQ(ended.how, "exit 0");
  EXPECT_EQ(ended.err, "");
  return ended.out;
}

std::string line(const std::string& done, const std::string& name, const std::string& server) {
  return done + " /dev/shm/" + name + ": its server, process " + server + ", is gone\n";
}

// The lines that tell of these names.
std::string lines(const std::string& done, const Names& names, const std::string& server) {
  std::string text;
  for (const std::string& name : names) {
    text += line(done, name, server);
  }
  return text;
}

Names allOf(const std::string& queue) {
  return {queue, queue + "Response", "." + queue + ".stats", "." + queue + ".lock"};
}

// Totals that a server wrote, as far as anybody asks.
std::string totalsOfServer4711() {
  return "orvstats" + std::string("\1\0\0\0\0\0\0\0", 8) + std::string("\x67\x12\0\0\0\0\0\0", 8) +
         std::string(160, '\0');
}

class Clean : public testing::Test {
 protected:
  ~Clean() override {
    for (const std::string& part : {name, leaseRun}) {
      for (const std::string& left : sharedMemoryNamed(part)) {
        fs::remove("/dev/shm/" + left);
      }
    }
  }
  void make(const std::string& file, const std::string& content) const {
    writeFile("/dev/shm/" + file, content);
  }

  // All processes of a server are killed, and gone.
  static void killAll(Server& server) {
    server.process().signalAll(SIGKILL);
    ASSERT_TRUE(eventually([&] { return !server.process().isRunning(); }));
    ASSERT_TRUE(eventually([&] { return cleaned(server.queue(), {"--dry-run"}) != kNothing; }));
  }

  const std::string name = uniqueQueueName();
  const std::string leaseRun = "orvane-20200101T000002-" + std::to_string(getpid());
};

TEST_F(Clean, RemovesWhatAKilledServerLeft) {
  Server server;
  killAll(server);

  EXPECT_EQ(cleaned(server.queue()),
            lines("removed", allOf(server.queue()), std::to_string(server.pid())));
  EXPECT_EQ(sharedMemoryNamed(server.queue()), Names{});
  EXPECT_EQ(cleaned(server.queue()), kNothing);
}

TEST_F(Clean, OnlyTellsWithDryRun) {
  Server server;
  killAll(server);
  const Names before = sharedMemoryNamed(server.queue());
  const std::string told =
      lines("would remove", allOf(server.queue()), std::to_string(server.pid()));

  EXPECT_EQ(cleaned(server.queue(), {"--dry-run"}), told);
  EXPECT_EQ(sharedMemoryNamed(server.queue()), before);
  EXPECT_EQ(readFile("/dev/shm/." + server.queue() + ".lock"), std::to_string(server.pid()) + "\n");
  EXPECT_EQ(cleaned(server.queue(), {"--dry-run"}), told);
}

TEST_F(Clean, WithJsonPrintsALineForEachFile) {
  Server server;
  killAll(server);
  const auto line = [&](const std::string& name, const std::string& removed) {
    return R"({"path":"/dev/shm/)" + name + R"(","removed":)" + removed + R"(,"server":)" +
           std::to_string(server.pid()) + "}\n";
  };
  std::string told;
  std::string removed;
  for (const std::string& name : allOf(server.queue())) {
    told += line(name, "false");
    removed += line(name, "true");
  }

  EXPECT_EQ(cleaned(server.queue(), {"--json", "--dry-run"}), told);
  EXPECT_EQ(cleaned(server.queue(), {"--json"}), removed);
  EXPECT_EQ(cleaned(server.queue(), {"--json"}), "");
}

TEST_F(Clean, LooksAtEveryNameWhenItIsToldNone) {
  Server dead;
  Server living;
  killAll(dead);

  const Ended ended = run({ORVANE_PATH, "clean", "--dry-run"});

  EXPECT_EQ(ended.how, "exit 0");
  EXPECT_TRUE(
      contains(ended.out, lines("would remove", allOf(dead.queue()), std::to_string(dead.pid()))));
  EXPECT_FALSE(contains(ended.out, living.queue()));
}

TEST_F(Clean, LeavesALivingServerAlone) {
  Server server;
  const Names before = sharedMemoryNamed(server.queue());

  EXPECT_EQ(cleaned(server.queue(), {"--dry-run"}), kNothing);
  EXPECT_EQ(cleaned(server.queue()), kNothing);

  EXPECT_EQ(sharedMemoryNamed(server.queue()), before);
  EXPECT_EQ(readFile("/dev/shm/." + server.queue() + ".lock"), std::to_string(server.pid()) + "\n");
  EXPECT_EQ(run(server.sendCommand({"-"}), "data").how, "exit 0");
}

// They have the lock that it took, until the last of them has ended.
TEST_F(Clean, LeavesAloneWhatTheProcessesOfADeadServerMayStillUse) {
  make("." + name + ".lock", std::string(kNobody) + "\n");
  make(name, "");
  const tool::Fd worker(open(("/dev/shm/." + name + ".lock").c_str(), O_RDWR | O_CLOEXEC));
  ASSERT_EQ(flock(worker.get(), LOCK_EX | LOCK_NB), 0);

  EXPECT_EQ(cleaned(name, {"--dry-run"}), kNothing);
  EXPECT_EQ(cleaned(name), kNothing);

  EXPECT_EQ(sharedMemoryNamed(name), (Names{"." + name + ".lock", name}));
  EXPECT_EQ(readFile("/dev/shm/." + name + ".lock"), std::string(kNobody) + "\n");
}

TEST_F(Clean, LeavesAServerAloneWhoseLockFileWasRemoved) {
  Server server;
  fs::remove("/dev/shm/." + server.queue() + ".lock");
  const Names before = sharedMemoryNamed(server.queue());

  EXPECT_EQ(cleaned(server.queue()), kNothing);

  EXPECT_EQ(sharedMemoryNamed(server.queue()), before);
}

TEST_F(Clean, KnowsAKilledServersPairByItsTotalsToo) {
  Server server;
  killAll(server);
  fs::remove("/dev/shm/." + server.queue() + ".lock");

  EXPECT_EQ(cleaned(server.queue()),
            lines("removed",
                  {server.queue(), server.queue() + "Response", "." + server.queue() + ".stats"},
                  std::to_string(server.pid())));
  EXPECT_EQ(sharedMemoryNamed(server.queue()), Names{});
}

TEST_F(Clean, KnowsHalfAPairByItsLock) {
  make("." + name + ".lock", std::string(kNobody) + "\n");
  make("." + name + ".stats", "");
  make(name + "Response", "");
  make("." + name + ".new", "");

  EXPECT_EQ(cleaned(name), lines("removed",
                                 {name + "Response", "." + name + ".new", "." + name + ".stats",
                                  "." + name + ".lock"},
                                 kNobody));
  EXPECT_EQ(sharedMemoryNamed(name), Names{});
}

TEST_F(Clean, LeavesAloneWhatNothingProvesToBeAServers) {
  make(name, "");
  make(name + "Response", "");
  make("." + name + ".new", "");
  make("." + name + ".stats", "somebody else's");
  const Names before = sharedMemoryNamed(name);

  for (const std::string& lock :
       {std::string(), std::string("rubbish\n"), std::string("12"), std::string("\n"),
        kNobody + std::string("\nmore"), std::to_string(getpid()) + "\n"}) {
    make("." + name + ".lock", lock);
    EXPECT_EQ(cleaned(name), kNothing) << lock;
    EXPECT_EQ(readFile("/dev/shm/." + name + ".lock"), lock);
    fs::remove("/dev/shm/." + name + ".lock");
    EXPECT_EQ(sharedMemoryNamed(name), before) << lock;
  }
}

TEST_F(Clean, RemovesNoFoldersAndPipesAndLinks) {
  make("." + name + ".lock", std::string(kNobody) + "\n");
  ASSERT_EQ(mkfifo(("/dev/shm/" + name).c_str(), 0600), 0);
  fs::create_directory("/dev/shm/" + name + "Response");
  fs::create_symlink("nowhere", "/dev/shm/." + name + ".stats");

  EXPECT_EQ(cleaned(name), lines("removed", {"." + name + ".lock"}, kNobody));
  EXPECT_EQ(sharedMemoryNamed(name), (Names{"." + name + ".stats", name, name + "Response"}));
}

// As nobody but root can make them; another user finds that it cannot, and has only its own.
TEST_F(Clean, LeavesAnotherUsersQueueAloneThatHasTheNameOfADeadServers) {
  make("." + name + ".lock", std::string(kNobody) + "\n");
  make(name, "");
  const bool given = chown(("/dev/shm/." + name + ".lock").c_str(), 65534, 65534) == 0;

  EXPECT_EQ(
      cleaned(name),
      lines("removed", given ? Names{"." + name + ".lock"} : Names{name, "." + name + ".lock"},
            kNobody));
  EXPECT_EQ(sharedMemoryNamed(name), given ? Names{name} : Names{});
}

// Without a lock file, which any server that starts would take.
TEST_F(Clean, RemovesWhatIsLeftOfADeadServersLeases) {
  make("." + leaseRun + "_0.stats", totalsOfServer4711());
  make(leaseRun + "_0", "");
  make(leaseRun + "_1Response", "");
  make(leaseRun + "_2.old", "");

  EXPECT_EQ(cleaned(leaseRun + "_0"),
            lines("removed",
                  {leaseRun + "_0", "." + leaseRun + "_0.stats", leaseRun + "_1Response"}, "4711"));
  EXPECT_EQ(sharedMemoryNamed(leaseRun), Names{leaseRun + "_2.old"});
}

TEST_F(Clean, LeavesAQueueAloneThatOnlyIsNamedLikeALease) {
  make(leaseRun + "_0", "");

  EXPECT_EQ(cleaned(leaseRun + "_0"), kNothing);
  EXPECT_EQ(sharedMemoryNamed(leaseRun), Names{leaseRun + "_0"});
}

class CleanSocket : public Clean {
 protected:
  // What a server leaves that is killed when it listens.
  void startAndKill() {
    Server server({"--socket", socket});
    ASSERT_TRUE(eventually([&] { return contains(server.log(), "serving leases at "); }));
    process = std::to_string(server.pid());
    server.process().signalAll(SIGKILL);
    ASSERT_TRUE(eventually([&] { return !server.process().isRunning(); }));
    ASSERT_TRUE(eventually([&] { return cleaned(socket, {"--dry-run"}) != kNothing; }));
  }
  std::string told(const std::string& done, const std::string& path) const {
    return done + " " + path + ": its server, process " + process + ", is gone\n";
  }

  const TempFolder folder;
  const std::string socket = folder.path() + "/orders/socket";
  std::string process;

  void SetUp() override { fs::create_directory(folder.path() + "/orders"); }
};

TEST_F(CleanSocket, OfAKilledServerIsRemovedWithItsLock) {
  startAndKill();
  EXPECT_EQ(cleaned(socket, {"--dry-run"}),
            told("would remove", socket) + told("would remove", socket + ".lock"));
  EXPECT_EQ(namesIn(folder.path() + "/orders"), (Names{"socket", "socket.lock"}));
  EXPECT_EQ(cleaned(socket), told("removed", socket) + told("removed", socket + ".lock"));
  EXPECT_EQ(namesIn(folder.path() + "/orders"), Names{});
  EXPECT_EQ(cleaned(socket), kNothing);
}

// As below /run/orvaned, where it is looked for without being named.
TEST_F(CleanSocket, IsFoundAnywhereBelowAFolder) {
  startAndKill();
  fs::rename(socket, folder.path() + "/orders/.socket.new");  // killed before it listened
  EXPECT_EQ(cleaned(folder.path()), told("removed", folder.path() + "/orders/.socket.new") +
                                        told("removed", socket + ".lock"));
  EXPECT_EQ(namesIn(folder.path() + "/orders"), Names{});
}

TEST_F(CleanSocket, OfALivingServerIsLeftAlone) {
  Server server({"--socket", socket});
  ASSERT_TRUE(eventually([&] { return contains(server.log(), "serving leases at "); }));
  EXPECT_EQ(cleaned(socket), kNothing);
  EXPECT_EQ(cleaned(folder.path()), kNothing);
  EXPECT_EQ(run({ORVANE_PATH, "send", "--socket", socket, "-"}, "data").how, "exit 0");
}

TEST_F(CleanSocket, IsLeftAloneWhereNothingProvesThatItWasAServers) {
  startAndKill();
  for (const std::string& lock :
       {std::string(), std::string("rubbish\n"), kNobody + std::string("\nmore"),
        std::to_string(getpid()) + "\n"}) {
    writeFile(socket + ".lock", lock);
    EXPECT_EQ(cleaned(socket), kNothing) << lock;
    EXPECT_EQ(readFile(socket + ".lock"), lock);
  }
  fs::remove(socket + ".lock");
  EXPECT_EQ(cleaned(socket), kNothing);
  EXPECT_TRUE(fs::is_socket(fs::symlink_status(socket)));
  writeFile(folder.path() + "/program.lock", std::string(kNobody) + "\n");
  EXPECT_EQ(cleaned(folder.path()), kNothing) << "without a socket beside it";
}

TEST_F(CleanSocket, BehindALinkIsLeftAlone) {
  startAndKill();
  const TempFolder other;
  fs::create_directory_symlink(folder.path() + "/orders", other.path() + "/link");
  EXPECT_EQ(cleaned(other.path()), kNothing);
  EXPECT_EQ(namesIn(folder.path() + "/orders"), (Names{"socket", "socket.lock"}));
}

TEST_F(Clean, RefusesANameThatNoQueueCanHave) {
  const Ended ended = run({ORVANE_PATH, "clean", ".hidden"});
  EXPECT_EQ(ended.how, "exit 2");
  EXPECT_EQ(ended.err,
            "orvane clean: the queue name begins with a dot "
            "(orvane clean --help shows the usage)\n");
}

TEST_F(Clean, DoesNotLeaveSharedMemory) {
  const TempFolder folder;
  writeFile(folder.path() + "/x.lock", std::string(kNobody) + "\n");
  writeFile(folder.path() + "/x", "");

  EXPECT_EQ(cleaned("/../.." + folder.path() + "/x"), kNothing);
  EXPECT_EQ(namesIn(folder.path()), (Names{"x", "x.lock"}));
}

}  // namespace
}  // namespace orvane::test
