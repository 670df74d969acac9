#pragma once

#include <sys/types.h>

#include <atomic>
#include <functional>
#include <new>

#include "link.hpp"

namespace bench {

// Memory that forked processes share with the one that made it.
class SharedBytes {
 public:
  explicit SharedBytes(std::size_t size);
  ~SharedBytes();
  SharedBytes(const SharedBytes&) = delete;
  SharedBytes& operator=(const SharedBytes&) = delete;

  unsigned char* data() const { return static_cast<unsigned char*>(memory); }

 private:
  const std::size_t size;
  void* const memory;
};

// A value in such memory.
template <typename Value>
class Shared {
 public:
  template <typename... Arguments>
  explicit Shared(Arguments... arguments) : value(new (memory.data()) Value(arguments...)) {}

  Value& operator*() const { return *value; }
  Value* operator->() const { return value; }

 private:
  const SharedBytes memory{sizeof(Value)};
  Value* const value;
};

// For `count` processes: returns in each when all of them have come here.
class Meeting {
 public:
  explicit Meeting(unsigned count) : missing(count) {}
  void wait();

 private:
  std::atomic<unsigned> missing;
};

// Starts a process that does this and ends. It is killed after so many seconds, or when this
// program ends.
pid_t startProcess(const std::function<void()>& work, unsigned mostSeconds);

// The processor time that this process has used so far, in seconds.
double cpuSeconds();

// Runs both at once, each in a separate process. Throws when one of them fails, or takes longer
// than 20 s; the other is killed then.
void runTogether(const std::string& name, const std::function<void()>& first,
                 const std::function<void()>& second);

// The same for one process, so that this program goes on if it fails or hangs.
void runAlone(const std::string& name, const std::function<void()>& work);

}  // namespace bench
