#include "support/await.hpp"

#include <sched.h>

#include <chrono>
#include <csignal>
#include <fstream>
#include <stdexcept>

#include "support/temp_folder.hpp"

namespace orvane::test {

bool eventually(const std::function<bool()>& condition) {
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::milliseconds(kPatienceMilliseconds);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) {
      return false;
    }
    sched_yield();
  }
  return true;
}

Answer awaitAnswer(boost::interprocess::message_queue& answers) {
  pvk_shm_response_t response;
  boost::interprocess::message_queue::size_type size = 0;
  unsigned priority = 0;
  // Not timed_receive(): the other side may be killed, and whoever waits then waits for ever.
  const auto came = [&] {
    return answers.try_receive(&response, sizeof(response), size, priority);
  };
  return eventually(came) ? Answer{response.status, response.text} : Answer{-1, "no answer came"};
}

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
