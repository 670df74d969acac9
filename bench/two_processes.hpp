#pragma once

#include <sys/mman.h>

#include <atomic>
#include <functional>
#include <new>

#include "link.hpp"

namespace bench {

// A value in memory that forked processes share with the one that made it.
template <typename Value>
class Shared {
 public:
  template <typename... Arguments>
  explicit Shared(Arguments... arguments)
      : memory(mmap(nullptr, sizeof(Value), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1,
                    0)) {
    if (memory == MAP_FAILED) {
      failWithErrno("cannot share memory");
    }
    value = new (memory) Value(arguments...);
  }
  ~Shared() { munmap(memory, sizeof(Value)); }
  Shared(const Shared&) = delete;
  Shared& operator=(const Shared&) = delete;

  Value& operator*() const { return *value; }
  Value* operator->() const { return value; }

 private:
  void* memory;
  Value* value;
};

// For `count` processes: returns in each when all of them have come here.
class Meeting {
 public:
  explicit Meeting(unsigned count) : missing(count) {}
  void wait();

 private:
  std::atomic<unsigned> missing;
};

// Runs both at once, each in a process of its own. Throws when one of them fails, or takes longer
// than 20 s; the other is killed then.
void runTogether(const std::string& name, const std::function<void()>& first,
                 const std::function<void()>& second);

}  // namespace bench
