#pragma once

#include <unistd.h>

#include <utility>

namespace tool {

// Owns a file descriptor; -1 is none.
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
      close(std::exchange(number, -1));
    }
  }

 private:
  int number;
};

}  // namespace tool
