#pragma once

#include <unistd.h>

#include <cerrno>
#include <utility>

namespace tool {

// Owns a file descriptor; -1 stands for none. Closing it does not change errno, because the reason
// why a call failed is often read after the function's descriptors were closed.
class Fd {
 public:
  explicit Fd(int descriptor = -1) : number(descriptor) {}
  Fd(Fd&& other) noexcept : number(std::exchange(other.number, -1)) {}
  Fd& operator=(Fd&& other) noexcept {
    std::swap(number, other.number);
    return *this;
  }
  ~Fd() { reset(); }

  int get() const { return number; }

  // The caller owns the descriptor from now on, and closes it.
  int release() { return std::exchange(number, -1); }

  void reset() {
    if (number >= 0) {
      const int error = errno;
      close(std::exchange(number, -1));
      errno = error;
    }
  }

 private:
  int number;
};

}  // namespace tool
