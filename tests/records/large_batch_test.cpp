#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <ios>
#include <iterator>
#include <memory>
#include <ostream>
#include <queue>
#include <stdexcept>
#include <streambuf>
#include <string>

#include "batch_members.hpp"
#include "orvane/batch_view.hpp"
#include "support/allocations.hpp"
#include "support/throws.hpp"
#include "support/wire.hpp"

namespace orvane::test {
namespace {

using Entry = ShmBatch::Entry;

constexpr std::size_t kCapacity = 0x100000000 + 4096;
constexpr std::size_t kPiece = 2 << 20;

// Addresses for a batch of kCapacity bytes. Their first and last 2 MiB are separate memory; all
// between is one file of 2 MiB, mapped again and again.
class RepeatedMemory {
 public:
  RepeatedMemory()
      : bytes(orThrow(mmap(nullptr, kSize, PROT_READ | PROT_WRITE,
                           MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0))) {
    const int file = memfd_create("repeated", MFD_CLOEXEC);
    if (file < 0 || ftruncate(file, kPiece) != 0) {
      throw std::runtime_error("memfd_create");
    }
    for (std::size_t offset = kPiece; offset < kSize - kPiece; offset += kPiece) {
      orThrow(mmap(static_cast<char*>(bytes) + offset, kPiece, PROT_READ | PROT_WRITE,
                   MAP_SHARED | MAP_FIXED | MAP_POPULATE, file, 0));
    }
    close(file);
  }
  ~RepeatedMemory() { munmap(bytes, kSize); }
  RepeatedMemory(const RepeatedMemory&) = delete;
  RepeatedMemory& operator=(const RepeatedMemory&) = delete;

  void* data() const { return bytes; }

 private:
  static constexpr std::size_t kSize = (kCapacity + kPiece - 1) / kPiece * kPiece;

  static void* orThrow(void* mapped) {
    if (mapped == MAP_FAILED) {
      throw std::runtime_error("mmap");
    }
    return mapped;
  }

  void* const bytes;
};

// Zeros to copy from, which take no memory.
class Zeros {
 public:
  Zeros()
      : bytes(mmap(nullptr, kSize, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0)) {
    if (bytes == MAP_FAILED) {
      throw std::runtime_error("mmap");
    }
    madvise(bytes, kSize, MADV_HUGEPAGE);  // fewer page faults, if the system has it
  }
  ~Zeros() { munmap(bytes, kSize); }
  Zeros(const Zeros&) = delete;
  Zeros& operator=(const Zeros&) = delete;

  const unsigned char* data() const { return static_cast<unsigned char*>(bytes); }

 private:
  static constexpr std::size_t kSize = 0x100000000;
  void* const bytes;
};

// Takes no more than `room` characters.
class ShortBuffer : public std::streambuf {
 public:
  explicit ShortBuffer(std::size_t room) : text(room, ' ') {
    setp(text.data(), text.data() + room);
  }
  std::string text;
};

class LargeBatch : public testing::Test {
 protected:
  LargeBatch() : batch(makeBatch()) {}
  ~LargeBatch() override {
    const Allocations owner([](std::size_t) { return nullptr; },
                            [this](void* freed) { return freed == memory.data(); });
    batch.reset();
  }

  std::unique_ptr<ShmBatch> makeBatch() const {
    const Allocations owner(
        [this](std::size_t size) { return size == kCapacity ? memory.data() : nullptr; });
    return std::make_unique<ShmBatch>(kCapacity);
  }

  const RepeatedMemory memory;
  std::unique_ptr<ShmBatch> batch;
};

Entry wideEntry(std::uint32_t len, const unsigned char* data) {
  pvk_shm_message_t header;
  header.seqNo = len;
  header.len = len;
  return {header, data};
}

TEST_F(LargeBatch, HoldsMoreThan4GiB) {
  EXPECT_TRUE(batch->canStore(wideEntry(5000, nullptr)));
  EXPECT_TRUE(batch->canStore(wideEntry(0xFFFFFFFF, nullptr)));
  EXPECT_TRUE(throwsErrno(
      9, "Invalid header; the specified length of data is 4294967295 but the data pointer is NULL",
      [&] { batch->pushBack(wideEntry(0xFFFFFFFF, nullptr)); }));

  batch->pushBack(wideEntry(0xFFFFFFFF, Zeros().data()));
  const std::size_t second = 56 + std::size_t{0xFFFFFFFF};
  EXPECT_EQ(batch->getRawSize(), second);
  EXPECT_EQ(writePosOf(*batch), batch->getRaw() + second);
  EXPECT_TRUE(batch->canStore(wideEntry(3993, nullptr)));
  EXPECT_FALSE(batch->canStore(wideEntry(3994, nullptr)));
  batch->pushBack(wideEntry(5, bytesOf("hello").data()));

  EXPECT_EQ(batch->getRawSize(), second + 53);
  EXPECT_EQ(batch->getEntry(1).header.seqNo, 5U);
  EXPECT_EQ(batch->getEntry(1).data, batch->getRaw() + second + 48);
  std::queue<Entry> entries;
  ShmBatch::getEntriesFromBuffer(entries, batch->getRaw(), batch->getRawSize());
  EXPECT_EQ(entries.back().data, batch->getRaw() + second + 48);
  const BatchView view(batch->getRaw(), batch->getRawSize());
  EXPECT_EQ((*std::next(view.begin())).data, batch->getRaw() + second + 48);
  EXPECT_EQ(Bytes(entries.back().data, entries.back().data + 5), bytesOf("hello"));

  // No more than that: the check value of 4 GiB takes its time.
  ShortBuffer buffer(59);
  std::ostream text(&buffer);
  text.exceptions(std::ios_base::badbit);
  EXPECT_THROW(text << *batch, std::ios_base::failure);
  EXPECT_EQ(buffer.text, "ShmBatch: entries=2, bufferSize=4294971392, used=4294967404");

  batch->clear();
  EXPECT_EQ(batch->getRawSize(), 8U);
  EXPECT_TRUE(batch->canStore(wideEntry(0xFFFFFFFF, nullptr)));
}

}  // namespace
}  // namespace orvane::test
