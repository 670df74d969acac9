#pragma once

#include <sys/mman.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "orvane/ring_reader.hpp"
#include "support/system_call.hpp"
#include "support/wire.hpp"

namespace orvane::test {

// The smallest ring, and the largest number of data bytes that one of its records has.
constexpr std::uint64_t kRing = 1048576;
constexpr std::uint64_t kLargestRecord = 262072;

// A whole file in memory.
class MappedFile {
 public:
  explicit MappedFile(int file, bool writable = false) {
    struct stat status = {};
    orThrow(fstat(file, &status), "fstat");
    size = static_cast<std::size_t>(status.st_size);
    void* const mapped =
        mmap(nullptr, size, writable ? PROT_READ | PROT_WRITE : PROT_READ, MAP_SHARED, file, 0);
    orThrow(mapped == MAP_FAILED ? -1 : 0, "mmap");
    address = static_cast<unsigned char*>(mapped);
  }
  ~MappedFile() { munmap(address, size); }
  MappedFile(const MappedFile&) = delete;
  MappedFile& operator=(const MappedFile&) = delete;

  unsigned char* at(std::uint64_t offset) const { return address + offset; }
  Bytes bytes(std::uint64_t offset, std::size_t count) const {
    return {at(offset), at(offset) + count};
  }
  std::uint64_t get64(std::uint64_t offset) const {
    return __atomic_load_n(reinterpret_cast<std::uint64_t*>(at(offset)), __ATOMIC_ACQUIRE);
  }
  std::uint32_t get32(std::uint64_t offset) const {
    return __atomic_load_n(reinterpret_cast<std::uint32_t*>(at(offset)), __ATOMIC_ACQUIRE);
  }
  void put64(std::uint64_t offset, std::uint64_t value) const {
    __atomic_store_n(reinterpret_cast<std::uint64_t*>(at(offset)), value, __ATOMIC_RELEASE);
  }

 private:
  std::size_t size = 0;
  unsigned char* address = nullptr;
};

// Where the counters are, as docs/format.md has them.
constexpr std::uint64_t kTail = 64;           // in the producer's file
constexpr std::uint64_t kBlocked = 144;       // likewise
constexpr std::uint64_t kAnswersTaken = 192;  // likewise
constexpr std::uint64_t kHead = 64;           // in the server's file
constexpr std::uint64_t kNap = 128;           // in both
constexpr std::uint64_t kAnswersWritten = 192;
constexpr std::uint64_t kFirstAnswer = 4096;
constexpr std::uint64_t kData = 4096;

// A producer that writes what it likes, byte by byte.
class RawProducer {
 public:
  explicit RawProducer(const RingReader& ring)
      : RawProducer(ring.producersFile(), ring.serversFile()) {}
  RawProducer(int producersFile, int serversFile)
      : file(producersFile, true), servers(serversFile) {}

  // Writes a frame at `position` and moves no counter. The frame says that its batch has `size`
  // bytes.
  void write(std::uint64_t position, std::uint64_t size, std::uint64_t number, const Bytes& batch) {
    std::memcpy(file.at(kData + position), &size, sizeof size);
    std::memcpy(file.at(kData + position + 8), &number, sizeof number);
    std::copy(batch.begin(), batch.end(), file.at(kData + position + 16));
  }
  void moveTail(std::uint64_t position) { file.put64(kTail, position); }

  // A valid frame, at the end of those that there are.
  void publish(const Bytes& batch) {
    write(tail % kRing, batch.size(), ++frames, batch);
    tail += (16 + batch.size() + 63) / 64 * 64;
    moveTail(tail);
  }

  // The server's answer, which has the given index since the beginning.
  std::int32_t status(std::uint64_t index) const {
    return static_cast<std::int32_t>(servers.get32(kFirstAnswer + index % 16 * 132));
  }
  std::string text(std::uint64_t index) const {
    const unsigned char* const text = servers.at(kFirstAnswer + index % 16 * 132 + 4);
    return reinterpret_cast<const char*>(text);
  }

  const MappedFile file;
  const MappedFile servers;

 private:
  std::uint64_t tail = 0;
  std::uint64_t frames = 0;
};

inline pvk_shm_response_t responseOf(std::int32_t status, const char* text = "") {
  pvk_shm_response_t response;
  response.assign(status, text);
  return response;
}

// The next batch; without bytes if there is none.
inline Bytes received(RingReader& ring) {
  const RingReader::Batch batch = ring.receive();
  return batch.data == nullptr ? Bytes() : Bytes(batch.data, batch.data + batch.size);
}

}  // namespace orvane::test
