#include "ox/strings.hpp"

#include <cstring>

void pvkstrcpy(char* destination, const char* source, std::size_t size) {
  if (size == 0) {
    return;
  }
  const std::size_t length = strnlen(source, size - 1);
  std::memmove(destination, source, length);
  std::memset(destination + length, 0, size - length);
}
