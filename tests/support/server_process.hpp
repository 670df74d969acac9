#pragma once

#include <sys/resource.h>
#include <sys/types.h>

#include <functional>
#include <memory>
#include <optional>
#include <queue/message_queue.hpp>
#include <string>
#include <vector>

namespace orvane::test {

// The real server as a child process. Told to end at the end, if it still runs.
class ServerProcess {
 public:
  struct Setup {
    std::optional<rlim_t> fileSizeLimit = std::nullopt;
    std::optional<rlim_t> openFileLimit = std::nullopt;
    const char* standardOutput = nullptr;  // a file instead of the pipe that output() reads
    bool standardErrorClosed = false;
    std::string program = ORVANED_PATH;
    std::function<void()> prepare = [] {};  // in the new process, before it becomes the program
    std::optional<int> standardError = std::nullopt;  // instead of what output() reads
  };

  explicit ServerProcess(const std::vector<std::string>& arguments)
      : ServerProcess(arguments, Setup()) {}
  ServerProcess(const std::vector<std::string>& arguments, const Setup& setup);
  ~ServerProcess();
  ServerProcess(const ServerProcess&) = delete;
  ServerProcess& operator=(const ServerProcess&) = delete;

  // Waits for the line that says that it serves; false when it ended before.
  bool isServing() { return says("serving queue "); }

  // Waits until it has said this so often.
  bool says(const std::string& words, int times = 1);

  // To the process that was started, which has others work for it.
  void signal(int number) const;

  // All of them at once.
  void signalAll(int number) const;
  void killAll() const;

  // Stops all of them, and waits until none runs any more.
  void stopAll() const;

  pid_t process() const { return pid; }

  // The processes that it has forked and that have not been waited for.
  std::vector<pid_t> children() const;

  // The process that serves this queue; waits for it.
  pid_t workerOf(const std::string& queue) const;

  // The process that serves the ring that was leased first; waits for it.
  pid_t workerOfRing() const;

  // The first child that has this in its memory; waits for it.
  pid_t childWith(const std::string& mapped) const;

  // Waits until it is stopped, by SIGSTOP.
  void waitUntilStopped() const;

  // Waits for its end; its exit code, or minus the signal that killed it.
  int wait();

  // Has it not ended yet?
  bool isRunning();

  // Standard output and standard error together; what wait() and isServing() have read so far.
  // TIME stands for the time stamp at the begin of a line. Without the lines about confinement.
  std::string output() const;
  const std::string& rawOutput() const { return text; }

  // The same, with what can be read without waiting.
  const std::string& outputSoFar();

  // From now on the server writes its lines to nobody.
  void closeOutput();

 private:
  bool read();
  void endInOrder() const;

  pid_t pid = -1;
  std::optional<int> status;  // once it is known that it has ended
  int fd = -1;
  std::string text;
};

// The send queue of a server that cannot say that it is ready, once it is there.
std::unique_ptr<boost::interprocess::message_queue> attach(const std::string& name);

}  // namespace orvane::test
