#include "content.hpp"

#include <cstdio>
#include <iterator>
#include <random>

namespace bench {
namespace {

// The same in each run.
std::mt19937_64 generator() {
  return std::mt19937_64(1);  // NOLINT(cert-msc32-c,cert-msc51-cpp)
}

}  // namespace

Content Content::text(std::size_t size) {
  constexpr const char* kWords[] = {"accepted", "closed", "denied", "opened", "queued", "retried"};
  std::mt19937_64 random = generator();
  std::vector<unsigned char> bytes;
  unsigned time = 0;  // milliseconds
  while (bytes.size() < size) {
    time += static_cast<unsigned>(random() % 50);
    char line[128];
    const int length = std::snprintf(
        line, sizeof line, "2026-11-21T10:%02u:%02u.%03uZ info order %08x of customer %05u %s\n",
        time / 60000 % 60, time / 1000 % 60, time % 1000, static_cast<unsigned>(random()),
        static_cast<unsigned>(random() % 5000), kWords[random() % std::size(kWords)]);
    bytes.insert(bytes.end(), line, line + length);
  }
  bytes.resize(size);
  return Content(std::move(bytes));
}

Content Content::noise(std::size_t size) {
  std::mt19937_64 random = generator();
  std::vector<unsigned char> bytes(size);
  for (unsigned char& byte : bytes) {
    byte = static_cast<unsigned char>(random());
  }
  return Content(std::move(bytes));
}

Bytes Content::record(std::uint64_t number, std::size_t size) const {
  return Bytes(bytes).subspan(number % (bytes.size() / size) * size, size);
}

}  // namespace bench
