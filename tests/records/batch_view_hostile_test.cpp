#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <queue>
#include <random>
#include <vector>

#include "orvane/batch_view.hpp"
#include "orvane/status.hpp"
#include "ox/errno_exception.hpp"
#include "support/wire.hpp"

// Damaged batches are refused, or read without leaving their bytes: those end where a page begins
// that must not be touched.
namespace orvane::test {
namespace {

class GuardedBytes {
 public:
  explicit GuardedBytes(const Bytes& content) {
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    const std::size_t room = (content.size() + page - 1) / page * page;
    mapped = room + page;
    base = static_cast<unsigned char*>(
        mmap(nullptr, mapped, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    mprotect(base + room, page, PROT_NONE);
    start =
        std::copy(content.begin(), content.end(), base + room - content.size()) - content.size();
    size = content.size();
  }
  ~GuardedBytes() { munmap(base, mapped); }
  GuardedBytes(const GuardedBytes&) = delete;
  GuardedBytes& operator=(const GuardedBytes&) = delete;

  bool holds(const unsigned char* from, std::size_t length) const {
    return from >= start && from <= start + size &&
           length <= static_cast<std::size_t>(start + size - from);
  }

  const unsigned char* start;
  std::size_t size;

 private:
  unsigned char* base;
  std::size_t mapped;
};

// Reads a batch both ways. Returns false when the view refuses it; otherwise both readers must give
// the same entries, all inside the bytes.
bool isAccepted(const Bytes& content) {
  const GuardedBytes bytes(content);
  try {
    const BatchView view(bytes.start, bytes.size);
    std::queue<ShmBatch::Entry> trusted;
    ShmBatch::getEntriesFromBuffer(trusted, bytes.start, bytes.size);
    EXPECT_EQ(trusted.size(), view.size());
    for (const ShmBatch::Entry& entry : view) {
      EXPECT_TRUE(entry.header.len == 0 || bytes.holds(entry.data, entry.header.len));
      EXPECT_TRUE(entry == trusted.front());
      EXPECT_EQ(entry.data, trusted.front().data);
      trusted.pop();
    }
    return true;
  } catch (const Ox_ErrnoException& e) {
    EXPECT_TRUE(e.status() == kStatusInvalidArgument || e.status() == kStatusCorruptMagic);
    return false;
  }
}

const BatchBytes kIntactBatch =
    BatchBytes().records({{.type = 1, .seqNo = 2, .data = bytesOf("hello")},
                          {.type = 7, .seqNo = 3, .data = Bytes(60, 'x')},
                          {.type = 2, .seqNo = 4}});

constexpr std::size_t kHeaderOffsets[] = {8, 61, 169};

// The bytes of the batch whose change must be noticed: magic words, lengths, the entry count.
bool isChecked(std::size_t offset) {
  if (offset < 8) {
    return true;
  }
  return std::ranges::any_of(kHeaderOffsets, [offset](std::size_t header) {
    return (offset >= header + 4 && offset < header + 8) ||
           (offset >= header + 44 && offset < header + 48);
  });
}

TEST(HostileBatch, WholeOneIsAccepted) {
  EXPECT_TRUE(isAccepted(kIntactBatch.bytes()));
}

TEST(HostileBatch, EveryFlippedBitOfMagicWordsLengthsAndCountIsRefused) {
  const std::size_t size = kIntactBatch.bytes().size();
  ASSERT_EQ(size, 217U);
  for (std::size_t offset = 0; offset < size; ++offset) {
    for (int bit = 0; bit < 8; ++bit) {
      const auto mask = static_cast<unsigned char>(1U << bit);
      EXPECT_EQ(isAccepted(BatchBytes(kIntactBatch).flip(offset, mask).bytes()), !isChecked(offset))
          << "bit " << bit << " of byte " << offset;
    }
  }
}

TEST(HostileBatch, EveryFlippedBitOfAHeaderAloneIsReadOrRefused) {
  const Bytes header(kIntactBatch.bytes().begin() + 8, kIntactBatch.bytes().begin() + 56);
  for (std::size_t offset = 0; offset < header.size(); ++offset) {
    for (int bit = 0; bit < 8; ++bit) {
      Bytes damaged = header;
      damaged[offset] = static_cast<unsigned char>(damaged[offset] ^ (1U << bit));
      const GuardedBytes bytes(damaged);
      pvk_shm_message_t read;
      if (offset < 44) {
        EXPECT_EQ(read.deserializeFromBuffer(bytes.start), bytes.start + 48);
      } else {
        EXPECT_THROW(read.deserializeFromBuffer(bytes.start), Ox_ErrnoException);
      }
      Bytes written(48);
      read.serializeToBuffer(written.data());
      EXPECT_EQ(written, damaged) << "a field was not read or not written";
    }
  }
}

TEST(HostileBatch, EveryFlippedBitOfTheMetadataAloneIsReadOrRefused) {
  for (std::size_t offset = 0; offset < 8; ++offset) {
    for (int bit = 0; bit < 8; ++bit) {
      const auto mask = static_cast<unsigned char>(1U << bit);
      const GuardedBytes bytes(BatchBytes().flip(offset, mask).bytes());
      ShmBatch::MetaData read;
      if (offset < 4) {
        EXPECT_THROW(read.deserializeFromBuffer(bytes.start), Ox_ErrnoException);
      } else {
        EXPECT_EQ(read.deserializeFromBuffer(bytes.start), bytes.start + 8);
        EXPECT_NE(read.numEntries, 0U);
      }
    }
  }
}

TEST(HostileBatch, EveryTruncationIsRefused) {
  for (std::size_t size = 0; size < kIntactBatch.bytes().size(); ++size) {
    EXPECT_FALSE(isAccepted(BatchBytes(kIntactBatch).cut(size).bytes())) << size << " bytes";
  }
}

TEST(HostileBatch, EveryChangedByteOfALengthIsRefused) {
  for (const std::size_t header : kHeaderOffsets) {
    for (std::size_t offset = header + 4; offset < header + 8; ++offset) {
      for (unsigned int mask = 1; mask < 256; ++mask) {
        EXPECT_FALSE(isAccepted(
            BatchBytes(kIntactBatch).flip(offset, static_cast<unsigned char>(mask)).bytes()))
            << "byte " << offset << " changed by " << mask;
      }
    }
  }
}

TEST(HostileBatch, AnyBytesAreReadOrRefused) {
  std::mt19937 random(20250101);
  for (int round = 0; round < 20000; ++round) {
    Bytes bytes(random() % 300);
    for (unsigned char& byte : bytes) {
      byte = static_cast<unsigned char>(random() % 4 == 0 ? random() : 0);
    }
    const Bytes magic = BatchBytes().bytes();
    std::copy_n(magic.begin(), std::min<std::size_t>(bytes.size(), 4), bytes.begin());
    isAccepted(bytes);
  }
}

// What was appended, to compare with what a reader gives back.
struct Appended {
  pvk_shm_message_t header;
  Bytes data;
};

std::vector<Appended> fillAtRandom(ShmBatch& batch, std::mt19937& random) {
  std::vector<Appended> appended;
  for (;;) {
    Appended record{{}, Bytes(random() % 3 == 0 ? 0 : random() % 200)};
    std::ranges::generate(record.data, [&] { return static_cast<unsigned char>(random()); });
    record.header.type = static_cast<std::uint32_t>(random());
    record.header.len = static_cast<std::uint32_t>(record.data.size());
    record.header.seqNo = (std::uint64_t{random()} << 32) | random();
    record.header.segmentNo = (std::uint64_t{random()} << 32) | random();
    record.header.segAlg = static_cast<std::uint32_t>(random());
    record.header.segParam3 = static_cast<std::uint32_t>(random());
    const ShmBatch::Entry entry(record.header, record.data.data());
    if (!batch.canStore(entry)) {
      return appended;
    }
    batch.pushBack(entry);
    appended.push_back(std::move(record));
  }
}

TEST(HostileBatch, WhateverIsAppendedComesBackEqualByBothReaders) {
  std::mt19937 random(4711);
  ShmBatch batch(5000);
  for (int round = 0; round < 200; ++round) {
    batch.clear();
    const std::vector<Appended> appended = fillAtRandom(batch, random);
    const BatchView view(batch.getRaw(), batch.getRawSize());
    std::queue<ShmBatch::Entry> trusted;
    ShmBatch::getEntriesFromBuffer(trusted, batch.getRaw(), batch.getRawSize());
    ASSERT_EQ(view.size(), appended.size());
    ASSERT_EQ(trusted.size(), appended.size());
    BatchView::Iterator viewed = view.begin();
    for (const Appended& record : appended) {
      const ShmBatch::Entry expected(record.header, record.data.data());
      EXPECT_TRUE(*viewed++ == expected);
      EXPECT_TRUE(trusted.front() == expected);
      trusted.pop();
    }
  }
}

}  // namespace
}  // namespace orvane::test
