#include "worker/confinement.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <sstream>
#include <stdexcept>

#include "support/confined_child.hpp"
#include "support/queue_pair.hpp"
#include "support/temp_folder.hpp"
#include "worker/allowed_calls.hpp"
#include "worker/queue_pair.hpp"

namespace orvane::test {
namespace {

// The lines of /proc/self/status, through a descriptor from before: Landlock forbids the path.
class Status {
 public:
  std::string operator[](const std::string& name) const {
    std::string text(8192, '\0');
    text.resize(static_cast<std::size_t>(pread(file, text.data(), text.size(), 0)));
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
      if (line.starts_with(name + ":\t")) {
        return line.substr(name.size() + 2);
      }
    }
    return "";
  }

 private:
  int file = open("/proc/self/status", O_RDONLY | O_CLOEXEC);
};

class ConfinedAs : public testing::TestWithParam<Rights> {
 protected:
  // Runs the check in a process that has dropped its rights. An empty text is good.
  void expectAfterDrop(const std::function<std::string()>& check) const {
    expectWith(confinementOf(GetParam()), check);
  }
  void expectWith(Confinement confinement, const std::function<std::string()>& check) const {
    confinement.seccomp = false;
    EXPECT_EQ(runConfined(GetParam(), confinement,
                          [&] {
                            const std::string wrong = check();
                            std::fputs(wrong.c_str(), stderr);
                            std::fflush(stderr);
                            return wrong.empty() ? 0 : 1;
                          })
                  .how,
              "exit 0");
  }
};

std::string unless(const std::string& found, const std::string& expected) {
  return found == expected ? "" : "found " + found + ", not " + expected + "\n";
}

TEST_P(ConfinedAs, HasNoCapabilities) {
  EXPECT_EQ(runInChild([] {
              takeOn(GetParam());
              Status status;
              dropRights(confinementOf(GetParam()), getppid());
              for (const char* set : {"CapInh", "CapPrm", "CapEff", "CapAmb"}) {
                if (status[set] != "0000000000000000") {
                  return 1;
                }
              }
              return 0;
            }),
            "exit 0");
}

TEST_P(ConfinedAs, KeepsCapabilitiesWithoutCapsetOnly) {
  EXPECT_EQ(runInChild([] {
              takeOn(GetParam());
              Status status;
              const std::string before = status["CapPrm"];
              Confinement confinement;
              confinement.capabilities = false;
              dropRights(confinement, getppid());
              return status["CapPrm"] == before ? 0 : 1;
            }),
            "exit 0");
}

TEST_P(ConfinedAs, CanGainNoPrivilegesAndIsNotDumped) {
  expectAfterDrop([] {
    return unless(std::to_string(prctl(PR_GET_NO_NEW_PRIVS, 0, 0, 0, 0)), "1") +
           unless(std::to_string(prctl(PR_GET_DUMPABLE)), "0");
  });
}

TEST_P(ConfinedAs, IsTheWorkersUserWithoutOtherGroups) {
  const bool isRoot = GetParam() == Rights::root;
  const uid_t user = isRoot ? kWorkerUser : geteuid() == 0 ? kServerUser : geteuid();
  expectAfterDrop([&] {
    uid_t users[3] = {};
    gid_t groups[3] = {};
    getresuid(&users[0], &users[1], &users[2]);
    getresgid(&groups[0], &groups[1], &groups[2]);
    std::string wrong;
    for (const uid_t one : users) {
      wrong += unless(std::to_string(one), std::to_string(user));
    }
    if (isRoot) {
      for (const gid_t one : groups) {
        wrong += unless(std::to_string(one), std::to_string(kWorkerUser));
      }
      wrong += unless(std::to_string(getgroups(0, nullptr)), "0");
    }
    return wrong;
  });
}

TEST_P(ConfinedAs, EndsWithItsParentStill) {
  EXPECT_EQ(runInChild([] {
              takeOn(GetParam());
              prctl(PR_SET_PDEATHSIG, SIGUSR2);
              dropRights(confinementOf(GetParam()), getppid());
              int signal = 0;
              prctl(PR_GET_PDEATHSIG, &signal);
              return signal == SIGUSR2 ? 0 : 1;
            }),
            "exit 0");
}

TEST_P(ConfinedAs, EndsWhereItsParentIsGoneAlready) {
  EXPECT_EQ(runInChild([] {
              takeOn(GetParam());
              prctl(PR_SET_PDEATHSIG, SIGTERM);
              dropRights(confinementOf(GetParam()), getpid());  // which is not its parent
              return 0;
            }),
            "signal 15");
}

TEST_P(ConfinedAs, MayOpenTheAllowedFileOnly) {
  const TempFolder folder;
  chmod(folder.path().c_str(), 0755);
  const std::string allowed = folder.path() + "/allowed";
  const std::string other = folder.path() + "/other";
  for (const std::string& path : {allowed, other}) {
    writeFile(path, "");
    chmod(path.c_str(), 0666);
  }
  const int file = open(allowed.c_str(), O_PATH | O_CLOEXEC);
  const auto confined = [&](const std::function<int()>& body) {
    return runInChild([&] {
      takeOn(GetParam());
      dropRights(confinementOf(GetParam()), getppid(), file);
      restrictCalls(confinementOf(GetParam()), nullptr, true);
      return body();
    });
  };
  const auto opened = [](const std::string& path) {
    return open(path.c_str(), O_RDWR) < 0 ? errno : 0;
  };
  EXPECT_EQ(confined([&] { return opened(allowed); }), "exit 0");
  EXPECT_EQ(confined([&] { return opened(other); }), "exit " + std::to_string(EACCES));
  EXPECT_EQ(confined([&] {
              restrictCalls(confinementOf(GetParam()), nullptr);
              return opened(allowed);
            }),
            orvaned::instrumentationCalls().empty() ? "signal 31" : "exit 0");
  close(file);
}

INSTANTIATE_TEST_SUITE_P(Each, ConfinedAs, testing::ValuesIn(rightsHere()),
                         [](const auto& rights) { return nameOf(rights.param); });

Outcome runAsWorker(const std::function<int()>& body) {
  return runConfined(rightsHere().front(), confinementOf(rightsHere().front()), body);
}

int require(bool condition, int exitCode) {
  return condition ? 0 : exitCode;
}

TEST(ConfinedWorker, UsesItsQueues) {
  const QueueName name(uniqueQueueName());
  orvaned::QueuePair queues(name.text(), {8, 1024, 0600});
  boost::interprocess::message_queue producer(boost::interprocess::open_only, name.text().c_str());
  producer.send("message", 7, 0);
  const Outcome outcome = runAsWorker([&] {
    const auto message = queues.receive();
    pvk_shm_response_t answer;
    answer.assign(1000, "no");
    queues.answer(answer);
    queues.discardResponses();
    return require(message && message->size() == 7 && queues.waiting() == 0, 1);
  });
  EXPECT_EQ(outcome.how, "exit 0") << orvaned::nameOfCall(outcome.refusedCall);
}

TEST(ConfinedWorker, WaitsForAQueue) {
  const QueuePair pair;
  boost::interprocess::message_queue queue(boost::interprocess::open_only, pair.name().c_str());
  const Outcome outcome = runAsWorker([&] {
    char byte = 0;
    boost::interprocess::message_queue::size_type size = 0;
    unsigned priority = 0;
    const auto soon =
        boost::posix_time::microsec_clock::universal_time() + boost::posix_time::milliseconds(20);
    char message[1024] = {byte};
    return require(!queue.timed_receive(message, sizeof(message), size, priority, soon), 1);
  });
  EXPECT_EQ(outcome.how, "exit 0") << orvaned::nameOfCall(outcome.refusedCall);
}

TEST(ConfinedWorker, UsesMemory) {
  const Outcome outcome = runAsWorker([] {
    std::vector<std::string> parts;
    for (std::size_t size = 1; size < (std::size_t{64} << 20); size *= 2) {
      parts.emplace_back(size, 'x');
    }
    auto* grown = static_cast<char*>(std::malloc(1 << 20));
    grown = static_cast<char*>(std::realloc(grown, 64 << 20));
    grown[(64 << 20) - 1] = 'x';
    std::free(grown);
    void* guarded =
        mmap(nullptr, std::size_t{3} * 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    return require(mprotect(guarded, 4096, PROT_READ | PROT_WRITE) == 0, 1);
  });
  EXPECT_EQ(outcome.how, "exit 0") << orvaned::nameOfCall(outcome.refusedCall);
}

TEST(ConfinedWorker, ThrowsAndTellsTheTime) {
  const Outcome outcome = runAsWorker([] {
    const std::time_t now = std::time(nullptr);
    std::tm utc = {};
    gmtime_r(&now, &utc);
    std::ostringstream text;
    text.imbue(std::locale::classic());
    text << utc.tm_year << std::generic_category().message(ENOSPC);
    try {
      throw std::runtime_error(text.str());
    } catch (const std::exception& e) {
      return require(std::string(e.what()).ends_with("No space left on device"), 1);
    }
  });
  EXPECT_EQ(outcome.how, "exit 0") << orvaned::nameOfCall(outcome.refusedCall);
}

TEST(ConfinedWorker, StoresThroughADescriptorThatItIsSent) {
  const TempFolder folder;
  const std::string path = folder.path() + "/segment";
  int sockets[2] = {};
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, sockets), 0);
  const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  char byte = 'f';
  iovec part = {&byte, 1};
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
  msghdr message = {};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof(control);
  cmsghdr* header = CMSG_FIRSTHDR(&message);
  header->cmsg_level = SOL_SOCKET;
  header->cmsg_type = SCM_RIGHTS;
  header->cmsg_len = CMSG_LEN(sizeof(int));
  *reinterpret_cast<int*>(CMSG_DATA(header)) = file;
  ASSERT_EQ(sendmsg(sockets[0], &message, 0), 1);
  const Outcome outcome = runAsWorker([&] {
    pollfd event = {sockets[1], POLLIN, 0};
    const timespec half = {30, 0};
    if (ppoll(&event, 1, &half, nullptr) != 1 ||
        recvmsg(sockets[1], &message, MSG_CMSG_CLOEXEC) != 1) {
      return 1;
    }
    const int received = *reinterpret_cast<int*>(CMSG_DATA(CMSG_FIRSTHDR(&message)));
    struct stat status = {};
    const bool stored = write(received, "data", 4) == 4 && fdatasync(received) == 0 &&
                        fsync(received) == 0 && syscall(SYS_fstat, received, &status) == 0 &&
                        close(received) == 0 && status.st_size == 4;
    return require(stored && send(sockets[1], "ok", 2, MSG_NOSIGNAL) == 2, 2);
  });
  EXPECT_EQ(outcome.how, "exit 0") << orvaned::nameOfCall(outcome.refusedCall);
  EXPECT_EQ(readFile(path), "data");
  for (const int fd : {file, sockets[0], sockets[1]}) {
    close(fd);
  }
}

TEST(ConfinedWorker, EndsByItsOwnAbort) {
  const Outcome outcome = runAsWorker([]() -> int { std::abort(); });
  EXPECT_EQ(outcome.how, "signal 6");
  EXPECT_EQ(outcome.refusedCall, -1);
}

TEST(ConfinedWorker, KeepsTheDescriptorsThatItIsToldOnly) {
  EXPECT_EQ(runInChild([] {
              const int first = dup(STDERR_FILENO);
              const int kept = dup(STDERR_FILENO);
              const int last = dup(STDERR_FILENO);
              orvaned::closeAllBut({-1, kept});
              const auto isOpen = [](int fd) { return fcntl(fd, F_GETFD) >= 0; };
              return require(isOpen(kept) && isOpen(STDERR_FILENO), 1) +
                     require(!isOpen(first) && !isOpen(last) && !isOpen(STDIN_FILENO), 2);
            }),
            "exit 0");
}

}  // namespace
}  // namespace orvane::test
