#pragma once

#include <sys/types.h>

#include <functional>
#include <vector>

namespace bench {

// Processes that all do the same, step by step: none begins a step before all have ended the one
// before it and the parent lets them go on. Those that wait use no processor time.
class Crowd {
 public:
  // In a process of the crowd.
  class Member {
   public:
    Member(unsigned index, int connection) : index(index), connection(connection) {}

    // This step is done; returns when the next one begins.
    void await() const;

    const unsigned index;

   private:
    const int connection;
  };

  // Starts `count` processes, each of which calls `work`.
  Crowd(unsigned count, const std::function<void(const Member&)>& work);

  // Kills those that are left.
  ~Crowd();
  Crowd(const Crowd&) = delete;
  Crowd& operator=(const Crowd&) = delete;

  // Waits until all members wait. Throws if one of them ended, or takes longer than 60 s.
  void awaitAll() const;
  void letGo() const;

  // Both, one after the other.
  void passStep() const {
    awaitAll();
    letGo();
  }

 private:
  struct Process {
    pid_t pid;
    int connection;
  };

  std::vector<Process> processes;
};

}  // namespace bench
