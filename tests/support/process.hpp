#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

namespace orvane::test {

// How a program ended: "exit 0", or "signal 2".
struct Ended {
  std::string how;
  std::string out;
  std::string err;
};

struct ProcessSetup {
  std::vector<std::string> environment = {};      // besides this process's own: "NAME=value"
  std::optional<std::size_t> fileSizeLimit = {};  // RLIMIT_FSIZE
  bool errorTerminal = false;                     // standard error is a terminal
};

// A program that runs. Killed when this object goes before it ended.
class Process {
 public:
  explicit Process(const std::vector<std::string>& command, const ProcessSetup& around = {});
  ~Process();
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  pid_t pid() const { return child; }
  void signal(int number) const;

  // To the program and to all that it started.
  void signalAll(int number) const;

  // To its standard input. What is written to a program that has ended is lost.
  void write(const std::string& bytes) const;
  void closeInput();

  // Standard output so far, and standard error, where it is no terminal.
  std::string output() const;
  std::string errorOutput() const;

  // What a terminal on standard error has shown since the last call.
  std::string terminalOutput() const;

  bool hasEnded();

  // Closes its input and waits; a program that takes longer than a minute is killed.
  Ended wait();

 private:
  void become(const std::vector<std::string>& command, const ProcessSetup& around, int input,
              const std::string& terminalName) const;

  int inputPipe = -1;
  int out = -1;
  int err = -1;  // a file in memory, or the other end of its terminal
  bool errIsTerminal = false;
  pid_t child = -1;
  std::optional<int> status;
};

// The program's whole run, with `input` as its standard input.
Ended run(const std::vector<std::string>& command, const std::string& input = "",
          const ProcessSetup& around = {});

}  // namespace orvane::test
