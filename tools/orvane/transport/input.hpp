#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "interrupt.hpp"

namespace tool {

// Fills `buffer` as far as the data reaches: fewer bytes than asked for mean its end.
using Reader = std::function<std::size_t(unsigned char* buffer, std::size_t size)>;

// An open file, or standard input for "-". Movable, one owner.
class Input {
 public:
  // Throws Failure (kNothingSent).
  explicit Input(const std::string& path);
  ~Input();
  Input(Input&& other) noexcept;
  Input(const Input&) = delete;
  Input& operator=(const Input&) = delete;

  // For messages.
  const std::string& name() const { return displayName; }

  // The bytes ahead, when that is known. A regular file can be read a second time.
  std::optional<std::uint64_t> size() const;
  bool isRegular() const { return regular; }
  void rewind();

  // As a Reader. Throws Failure (kInputFailed), Interrupted.
  std::size_t read(unsigned char* buffer, std::size_t size, Interrupt& interrupt);

  // Valid while this object is.
  Reader reader(Interrupt& interrupt);

 private:
  std::string displayName;
  int fd;
  bool regular;
  std::int64_t startOffset = 0;
  std::uint64_t fileSize = 0;
};

}  // namespace tool
