#pragma once

#include <atomic>
#include <cassert>

namespace orvane {

// Asserts, in a debug build, that no two threads use an object at the same time. Each call that
// uses the object has one of these.
class OneUser {
 public:
#ifdef NDEBUG
  struct Mark {};
  explicit OneUser(Mark& /*mark*/) {}
#else
  using Mark = std::atomic<bool>;
  explicit OneUser(Mark& mark) : mark(mark) {
    const bool isUsed = mark.exchange(true);
    assert(!isUsed && "a stream must not be shared by threads");
    static_cast<void>(isUsed);
  }
  ~OneUser() {
    mark = false;
  }
  OneUser(const OneUser&) = delete;
  OneUser& operator=(const OneUser&) = delete;

 private:
  Mark& mark;
#endif
};

}  // namespace orvane
