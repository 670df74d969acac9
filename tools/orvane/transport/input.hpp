#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "interrupt.hpp"

namespace tool {

// Fills `buffer` and returns the number of bytes; fewer than `size` mean the end of the data.
using Reader = std::function<std::size_t(unsigned char* buffer, std::size_t size)>;

// An open file, or standard input for "-". It has one owner and is movable.
class Input {
 public:
  // Throws Failure (kNothingSent).
  explicit Input(const std::string& path);
  ~Input();
  Input(Input&& other) noexcept;
  Input(const Input&) = delete;
  Input& operator=(const Input&) = delete;

  // The name in messages.
  const std::string& name() const { return displayName; }

  // Returns the number of bytes to read, if it is known. A regular file can be read a second time.
  std::optional<std::uint64_t> size() const;
  bool isRegular() const { return regular; }
  void rewind();

  // Reads as a Reader does. Throws Failure (kInputFailed), Interrupted.
  std::size_t read(unsigned char* buffer, std::size_t size, Interrupt& interrupt);

  // The reader is valid as long as this object.
  Reader reader(Interrupt& interrupt);

 private:
  std::string displayName;
  int fd;
  bool regular;
  std::int64_t startOffset = 0;
  std::uint64_t fileSize = 0;
};

}  // namespace tool
