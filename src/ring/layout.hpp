#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>

#include "orvane/ring_reader.hpp"

// A ring is two memory files. The producer writes one, the server writes the other, and each maps
// the other's file read-only. Numbers are in the machine's byte order.
//
//   the producer's file                       the server's file
//   offset  size                              offset  size
//        0     8  "orvring" and a zero             0     8  the same
//        8     4  version, 1                       8     4  the same
//       12     4  bytes of a line, 64             12     4  the same
//       16     8  bytes of the data               16     8  the same
//       64     8  tail                            64     8  head
//      128     4  nap                            128     4  nap
//      136     8  want                           192     8  answers written
//      144     8  ns blocked
//      192     8  answers taken
//     4096        data                          4096  2112  16 answers of 132 bytes
//
// `tail` and `head` count the bytes that were ever written and released; a position in the data is
// such a count modulo the size, which is a power of two. `nap` is odd while its side sleeps.
//
// The data is a row of frames, each at a multiple of a line:
//
//   offset  size
//        0     8  bytes of the batch
//        8     8  number of the frame: 1, 2, 3, ...
//       16        the batch, exactly as a queue's message
//
// Both sides map the data twice in a row, so every frame is contiguous.
namespace orvane::ring {

constexpr std::uint64_t kMagic = 0x00676e697276726f;  // "orvring" and a zero
constexpr std::uint32_t kVersion = 1;
constexpr std::size_t kLine = 64;
constexpr std::size_t kPage = 4096;

constexpr std::size_t kFrameHeader = 16;
constexpr std::size_t kAnswers = 16;

// One frame may take a quarter, so that producer and server can work at the same time.
constexpr std::uint64_t largestFrame(std::uint64_t ringBytes) {
  return ringBytes / 4;
}

constexpr std::uint64_t wholeLines(std::uint64_t bytes) {
  return (bytes + kLine - 1) / kLine * kLine;
}

constexpr bool isRingSize(std::uint64_t bytes) {
  return bytes >= kSmallestRing && bytes <= kLargestRing && std::has_single_bit(bytes);
}

struct Identity {
  std::uint64_t magic = kMagic;
  std::uint32_t version = kVersion;
  std::uint32_t line = kLine;
  std::uint64_t bytes{};
};

// The counters of both pages. `Atomic` is std::atomic; a model checker has one of its own.
template <template <typename> class Atomic>
struct ProducerCounters {
  alignas(kLine) Atomic<std::uint64_t> tail{0};
  alignas(kLine) Atomic<std::uint32_t> nap{0};
  alignas(8) Atomic<std::uint64_t> want{0};  // while asleep: the head at which it is to be woken
  Atomic<std::uint64_t> blocked{0};
  alignas(kLine) Atomic<std::uint64_t> answersTaken{0};
};

template <template <typename> class Atomic>
struct ServerCounters {
  alignas(kLine) Atomic<std::uint64_t> head{0};
  alignas(kLine) Atomic<std::uint32_t> nap{0};
  alignas(kLine) Atomic<std::uint64_t> answersWritten{0};
};

}  // namespace orvane::ring
