#include "orvane/batch_view.hpp"

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <queue>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/throws.hpp"
#include "support/wire.hpp"

namespace orvane::test {
namespace {

// Their headers start at 8 and 61.
const BatchBytes kTwoRecords = BatchBytes().records(
    {{.type = 1, .seqNo = 2, .data = bytesOf("hello")}, {.type = 2, .seqNo = 3}});

testing::AssertionResult refuses(ox_status_t status, const std::string& message,
                                 const BatchBytes& batch) {
  return throwsErrno(status, message,
                     [&] { BatchView(batch.bytes().data(), batch.bytes().size()); });
}

std::string corruptHeader(const std::string& magic) {
  return "Could not deserialize pvk_shm_message from buffer because the magic value " + magic +
         " is corrupt (expected=2864434397)";
}

TEST(BatchViewOrder, MetadatasMagicIsCheckedBeforeItsCount) {
  EXPECT_TRUE(refuses(32,
                      "Could not deserialize ShmBatch::MetaData from buffer because the magic "
                      "value 1 is corrupt (expected=4278251025)",
                      BatchBytes(kTwoRecords).put32(0, 1).put32(4, 100)));
}

TEST(BatchViewOrder, SizeIsCheckedBeforeTheMetadatasMagic) {
  EXPECT_TRUE(refuses(9,
                      "Buffer size 7 is invalid because it is smaller than the minimum required "
                      "buffer size of 8",
                      BatchBytes(kTwoRecords).put32(0, 1).cut(7)));
}

TEST(BatchViewOrder, CountIsCheckedBeforeAnyHeader) {
  EXPECT_TRUE(refuses(
      9,
      "Could not read batch because its 3 entries need at least 144 bytes but only 101 are there",
      BatchBytes(kTwoRecords).put32(4, 3).put32(52, 1)));
}

TEST(BatchViewOrder, HeadersMagicIsCheckedBeforeItsLength) {
  EXPECT_TRUE(refuses(32, corruptHeader("1"), BatchBytes(kTwoRecords).put32(52, 1).put32(12, 54)));
  EXPECT_TRUE(refuses(32, corruptHeader("2"), BatchBytes(kTwoRecords).put32(105, 2).put32(65, 1)));
}

TEST(BatchViewOrder, EntryIsCheckedBeforeTheNext) {
  EXPECT_TRUE(
      refuses(9,
              "Could not read batch entry 0 at offset 8 because its data needs 54 bytes but "
              "only 53 are there",
              BatchBytes(kTwoRecords).put32(12, 54).put32(105, 2)));
}

TEST(BatchViewOrder, EveryHeaderIsCheckedBeforeWhatIsLeftOver) {
  EXPECT_TRUE(refuses(32, corruptHeader("2"), BatchBytes(kTwoRecords).put32(105, 2).append({0})));
}

TEST(BatchView, NamesAnUnsignedMagic) {
  EXPECT_TRUE(
      refuses(32, corruptHeader("4294967295"), BatchBytes(kTwoRecords).put32(52, 0xFFFFFFFF)));
}

TEST(BatchView, RefusesAnyNumberOfBytesLeftOver) {
  for (std::size_t more = 1; more <= 200; ++more) {
    EXPECT_TRUE(refuses(9,
                        "Could not read batch because " + std::to_string(more) +
                            " bytes are left over behind its 2 entries at offset 109",
                        BatchBytes(kTwoRecords).append(Bytes(more))));
  }
}

TEST(BatchView, RefusesALastHeaderOfWhichAnyBytesAreMissing) {
  for (std::uint32_t there = 0; there < 48; ++there) {
    EXPECT_TRUE(refuses(9,
                        "Could not read batch entry 1 at offset " + std::to_string(109 - there) +
                            " because its header needs 48 bytes but only " + std::to_string(there) +
                            " are there",
                        BatchBytes(kTwoRecords).put32(12, 53 - there)));
  }
}

TEST(BatchView, ReadsTheLastBytes) {
  for (std::size_t length = 0; length < 100; ++length) {
    Bytes data(length, 'x');
    if (length > 0) {
      data.back() = 'y';
    }
    const BatchBytes batch = BatchBytes().records({{.type = 1}, {.type = 2, .data = data}});
    const BatchView view(batch.bytes().data(), batch.bytes().size());
    const std::vector<ShmBatch::Entry> entries(view.begin(), view.end());
    ASSERT_EQ(entries.size(), 2U);
    ASSERT_EQ(entries[1].header.len, length);
    if (length > 0) {
      EXPECT_EQ(entries[1].data + length, batch.bytes().data() + batch.bytes().size());
      EXPECT_EQ(entries[1].data[length - 1], 'y');
      EXPECT_TRUE(refuses(9,
                          "Could not read batch entry 1 at offset 56 because its data needs " +
                              std::to_string(length) + " bytes but only " +
                              std::to_string(length - 1) + " are there",
                          BatchBytes(batch).cut(104 + length - 1)));
    }
  }
}

// 8 GiB of zeros, of which only what is written takes memory.
class SparseBytes {
 public:
  static constexpr std::size_t kSize = std::size_t{8} << 30;

  SparseBytes()
      : bytes(mmap(nullptr, kSize, PROT_READ | PROT_WRITE,
                   MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0)) {
    if (bytes == MAP_FAILED) {
      throw std::runtime_error("mmap");
    }
  }
  ~SparseBytes() { munmap(bytes, kSize); }
  SparseBytes(const SparseBytes&) = delete;
  SparseBytes& operator=(const SparseBytes&) = delete;

  unsigned char* data() const { return static_cast<unsigned char*>(bytes); }

 private:
  void* const bytes;
};

constexpr std::size_t kHeaders[] = {8, 4294967351, 6442451048, 6442451101};
constexpr std::size_t kWideSize = 6442451149;

// Four records with 2^32 - 1, 2^31 + 1, 5 and no data bytes.
class WideBatch : public testing::Test {
 protected:
  WideBatch() {
    constexpr std::uint32_t kLengths[] = {0xFFFFFFFF, 0x80000001, 5, 0};
    put(0, 0xFF00EE11);
    put(4, 4);
    for (int i = 0; i < 4; ++i) {
      put(kHeaders[i] + 4, kLengths[i]);
      put(kHeaders[i] + 12, static_cast<std::uint32_t>(i));
      put(kHeaders[i] + 44, 0xAABBCCDD);
    }
  }

  void put(std::size_t offset, std::uint32_t value) const {
    for (int shift = 24; shift >= 0; shift -= 8) {
      sparse.data()[offset++] = static_cast<unsigned char>(value >> shift);
    }
  }

  testing::AssertionResult refuses(const std::string& message, std::size_t size = kWideSize) const {
    return throwsErrno(9, message, [&] { BatchView(sparse.data(), size); });
  }

  const SparseBytes sparse;
};

TEST_F(WideBatch, IsReadByTheCheckingReader) {
  const BatchView view(sparse.data(), kWideSize);
  ASSERT_EQ(view.size(), 4U);
  BatchView::Iterator position = view.begin();
  for (std::size_t i = 0; i < 3; ++i, ++position) {
    EXPECT_EQ((*position).header.seqNo, i);
    EXPECT_EQ((*position).data, sparse.data() + kHeaders[i] + 48);
  }
  EXPECT_EQ((*position).data, nullptr);
  EXPECT_EQ(++position, view.end());
}

TEST_F(WideBatch, IsReadByTheTrustingReader) {
  std::queue<ShmBatch::Entry> entries;
  ShmBatch::getEntriesFromBuffer(entries, sparse.data(), kWideSize);
  ASSERT_EQ(entries.size(), 4U);
  for (std::size_t i = 0; i < 4; ++i, entries.pop()) {
    EXPECT_EQ(entries.front().header.seqNo, i);
    EXPECT_EQ(entries.front().data, i < 3 ? sparse.data() + kHeaders[i] + 48 : nullptr);
  }
}

TEST_F(WideBatch, IsRefusedWhenTheLastBytesAreMissing) {
  EXPECT_TRUE(
      refuses("Could not read batch entry 3 at offset 6442451101 because its header needs 48 bytes "
              "but only 47 are there",
              kWideSize - 1));
  EXPECT_TRUE(refuses(
      "Could not read batch entry 0 at offset 8 because its data needs 4294967295 bytes but "
      "only 4294967294 are there",
      4294967350));
  EXPECT_TRUE(
      refuses("Could not read batch entry 1 at offset 4294967351 because its data needs 2147483649 "
              "bytes but only 2147483648 are there",
              6442451047));
}

TEST_F(WideBatch, IsRefusedWhenBytesAreLeftOver) {
  EXPECT_TRUE(
      refuses("Could not read batch because 1 bytes are left over behind its 4 entries at offset "
              "6442451149",
              kWideSize + 1));
  put(4, 0);
  EXPECT_TRUE(
      refuses("Could not read batch because 6442451141 bytes are left over behind its 0 entries at "
              "offset 8"));
  EXPECT_TRUE(
      refuses("Could not read batch because 4294967296 bytes are left over behind its 0 entries at "
              "offset 8",
              4294967304));
}

TEST_F(WideBatch, MayHaveMoreEntriesThan4GiBHold) {
  put(4, 134217729);
  EXPECT_TRUE(refuses(
      "Could not read batch because its 134217729 entries need at least 6442450992 bytes but "
      "only 6442450991 are there",
      6442450999));
}

TEST(CheckingReader, NumbersMoreThan65536EntriesInARefusal) {
  constexpr std::size_t kEntries = 65537;
  constexpr std::size_t kLast = 8 + 48 * 65536;
  BatchBytes batch;
  batch.append(Bytes(kEntries * 48 + 4)).put32(4, kEntries).put32(kLast + 4, 5);
  for (std::size_t i = 0; i < kEntries; ++i) {
    batch.put32(8 + 48 * i + 44, 0xAABBCCDD);
  }
  const Bytes& bytes = batch.bytes();
  EXPECT_TRUE(throwsErrno(9,
                          "Could not read batch entry 65536 at offset 3145736 because its data "
                          "needs 5 bytes but only 4 are there",
                          [&] { BatchView(bytes.data(), bytes.size()); }));
}

}  // namespace
}  // namespace orvane::test
