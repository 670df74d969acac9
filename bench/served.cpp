#include "served.hpp"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "link.hpp"

namespace bench {
namespace {

constexpr useconds_t kLook = 1000;
constexpr int kMostLooks = 10000;

// /proc/PID/stat counts in ticks; the name in parentheses may hold anything.
double cpuSecondsOf(pid_t pid) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
  std::string text;
  std::getline(file, text);
  const std::size_t name = text.rfind(')');
  if (name == std::string::npos) {
    return 0;  // it has ended
  }
  std::istringstream fields(text.substr(name + 1));
  std::string skipped;
  for (int i = 0; i < 11; ++i) {
    fields >> skipped;
  }
  long user = 0;
  long system = 0;
  fields >> user >> system;
  return static_cast<double>(user + system) / static_cast<double>(sysconf(_SC_CLK_TCK));
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

}  // namespace

Served::Served(const std::string& program, const std::string& store)
    : path(std::filesystem::temp_directory_path() / uniqueName()), pid(fork()) {
  if (pid < 0) {
    failWithErrno("cannot fork");
  }
  if (pid == 0) {
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    execl(program.c_str(), program.c_str(), "--socket", path.c_str(), "--store", store.c_str(),
          "--log-level", "error", "--pairs-per-user", "256", nullptr);
    _exit(127);
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

double Served::cpuSeconds() const {
  double sum = cpuSecondsOf(pid);
  const std::string number = std::to_string(pid);
  std::ifstream children("/proc/" + number + "/task/" + number + "/children");
  for (pid_t child = 0; children >> child;) {
    sum += cpuSecondsOf(child);
  }
  return sum;
}

}  // namespace bench
