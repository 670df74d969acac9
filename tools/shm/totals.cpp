#include "shm/totals.hpp"

#include <fcntl.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstring>
#include <iterator>

namespace tool {
namespace {

using Text = std::array<char, sizeof(Totals::stream)>;

}  // namespace

// A reader that sees a new word also sees the odd number, because each word is released after it.
void setStream(Totals& totals, const std::string& id) {
  Text text = {};
  std::copy_n(id.data(), std::min(id.size(), text.size()), text.data());
  const std::uint64_t changes = totals.streamChanges.load(std::memory_order_relaxed);
  totals.streamChanges.store(changes + 1, std::memory_order_relaxed);
  for (std::size_t i = 0; i < std::size(totals.stream); ++i) {
    std::uint64_t word = 0;
    std::memcpy(&word, text.data() + i * sizeof word, sizeof word);
    totals.stream[i].store(word, std::memory_order_release);
  }
  totals.streamChanges.store(changes + 2, std::memory_order_release);
}

std::optional<std::string> streamOf(const Totals& totals) {
  const std::uint64_t changes = totals.streamChanges.load(std::memory_order_acquire);
  Text text;
  for (std::size_t i = 0; i < std::size(totals.stream); ++i) {
    const std::uint64_t word = totals.stream[i].load(std::memory_order_acquire);
    std::memcpy(text.data() + i * sizeof word, &word, sizeof word);
  }
  if (changes % 2 != 0 || totals.streamChanges.load(std::memory_order_relaxed) != changes) {
    return std::nullopt;
  }
  return std::string(text.begin(), std::find(text.begin(), text.end(), '\0'));
}

// The number is set to 0 before a stream's id is published, so it belongs to the stream that is
// open before and after it is read.
std::uint64_t answeredOf(const Totals& totals, const std::string& stream) {
  if (streamOf(totals) != stream) {
    return 0;
  }
  const std::uint64_t answered = totals.answered.load(std::memory_order_acquire);
  return streamOf(totals) == stream ? answered : 0;
}

std::uint64_t monotonicNow() {
  return static_cast<std::uint64_t>(
      std::chrono::nanoseconds(std::chrono::steady_clock::now().time_since_epoch()).count());
}

std::optional<bool> isWorkerAlive(int totalsFile) {
  struct flock lock = {};
  lock.l_type = F_RDLCK;
  lock.l_len = 1;
  if (fcntl(totalsFile, F_OFD_GETLK, &lock) != 0) {
    return std::nullopt;
  }
  return lock.l_type != F_UNLCK;
}

}  // namespace tool
