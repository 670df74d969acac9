#pragma once

#include <unistd.h>

#include <cerrno>
#include <utility>

namespace tool {

// Owns a file descriptor; -1 is none. Closing one leaves errno as it is: the reason why a call
// failed is often looked at after the descriptors of its function are gone.
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

  // Gives it up: whoever calls this closes it.
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
