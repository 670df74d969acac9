#include "served.hpp"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "link.hpp"

namespace bench {
namespace {

constexpr useconds_t kLook = 1000;
constexpr int kMostLooks = 10000;

// The first number of schedstat is nanoseconds. It is about one thread, and orvaned's processes
// have one each; /proc/PID/stat would count ticks of 10 ms, of which an idle server uses none for
// long.
double cpuSecondsOf(pid_t pid) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/schedstat");
  double nanoseconds = 0;  // of a process that has ended
  file >> nanoseconds;
  return nanoseconds / 1e9;
}

// The socket's file is there before anybody listens.
bool listensAt(const std::string& path) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  const int connection = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  const bool connected =
      connect(connection, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  close(connection);
  return connected;
}

[[noreturn]] void become(const std::string& program, const std::string& socketPath,
                         const std::string& store, const std::vector<std::string>& options) {
  std::vector<const char*> words = {program.c_str(), "--socket",         socketPath.c_str(),
                                    "--store",       store.c_str(),      "--log-level",
                                    "error",         "--pairs-per-user", "256"};
  for (const std::string& option : options) {
    words.push_back(option.c_str());
  }
  words.push_back(nullptr);
  execv(program.c_str(), const_cast<char**>(words.data()));
  _exit(127);
}

}  // namespace

Served::Served(const std::string& program, const std::string& store,
               const std::vector<std::string>& options)
    : path(std::filesystem::temp_directory_path() / uniqueName()), pid(fork()) {
  if (pid < 0) {
    failWithErrno("cannot fork");
  }
  if (pid == 0) {
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    become(program, path, store, options);
  }
  for (int looks = 0; !listensAt(path); ++looks) {
    if (looks == kMostLooks || waitpid(pid, nullptr, WNOHANG) != 0) {
      kill(pid, SIGTERM);
      throw std::runtime_error(program + " does not serve");
    }
    usleep(kLook);
  }
}

Served::~Served() {
  kill(pid, SIGTERM);
  waitpid(pid, nullptr, 0);
}

double Served::cpuSeconds() {
  for (const pid_t process : processes()) {
    double& seconds = used[process];
    seconds = std::max(seconds, cpuSecondsOf(process));
  }
  double sum = 0;
  for (const auto& [process, seconds] : used) {
    sum += seconds;
  }
  return sum;
}

std::optional<std::size_t> Served::memory() const {
  std::size_t sum = 0;
  for (const pid_t process : processes()) {
    const auto one = memoryOf(process);
    if (!one) {
      return std::nullopt;
    }
    sum += *one;
  }
  return sum;
}

std::vector<pid_t> Served::processes() const {
  std::vector<pid_t> all = {pid};
  const std::string number = std::to_string(pid);
  std::ifstream children("/proc/" + number + "/task/" + number + "/children");
  for (pid_t child = 0; children >> child;) {
    all.push_back(child);
  }
  return all;
}

std::optional<std::size_t> memoryOf(pid_t pid) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/smaps_rollup");
  for (std::string word; file >> word;) {
    std::size_t kib = 0;
    if (word == "Pss:" && file >> kib) {
      return kib << 10;
    }
  }
  return std::nullopt;
}

}  // namespace bench
