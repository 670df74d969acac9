#pragma once

#include <sys/types.h>

#include <functional>
#include <string>

namespace orvane::test {

// A forked process that runs `body` and leaves by _exit(0), or by _exit(1) when it throws. Dies
// with the test.
class Child {
 public:
  explicit Child(const std::function<void()>& body);
  ~Child();  // kills it, unless it has ended
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  pid_t pid() const { return id; }
  void signal(int number) const;

  // Waits until it stops or ends: "stopped", "exit 0", "signal 9".
  std::string nextChange();

 private:
  pid_t id;
  bool ended = false;
};

// In a child, once: a page that raises `signal` when its first byte is touched. Given to a queue to
// copy from or into, it does so inside the queue's lock. The copy goes on when the process does.
void* pageThatRaises(int signal);

}  // namespace orvane::test
