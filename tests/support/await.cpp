#include "support/await.hpp"

#include <csignal>
#include <fstream>
#include <stdexcept>

#include "support/eventually.hpp"
#include "support/temp_folder.hpp"

namespace orvane::test {

char stateOf(pid_t process) {
  std::ifstream file("/proc/" + std::to_string(process) + "/stat");
  std::string line;
  std::getline(file, line);
  const std::size_t name = line.rfind(") ");
  return name == std::string::npos ? '\0' : line.at(name + 2);
}

long systemCallOf(pid_t process) {
  std::ifstream file("/proc/" + std::to_string(process) + "/syscall");
  long number = -1;
  return file >> number ? number : -1;
}

void stop(pid_t process) {
  kill(process, SIGSTOP);
  if (!eventually([&] { return stateOf(process) == 'T'; })) {
    throw std::runtime_error("process " + std::to_string(process) + " does not stop");
  }
}

std::vector<std::string> sharedMemoryOf(const std::string& queue) {
  std::vector<std::string> names;
  for (const std::string& name : namesIn("/dev/shm")) {
    for (const char* end : {"", "Response", ".new", "Response.new", ".lock", ".stats"}) {
      if (name == queue + end || name == "." + queue + end) {
        names.push_back(name);
      }
    }
  }
  return names;
}

}  // namespace orvane::test
