#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>

#include "orvane/batch.hpp"
#include "orvane/export.hpp"

namespace orvane {

namespace layout {
class BatchCheck;
}

// The reader of a received batch, for bytes from a process that is not trusted.
//   for (const ShmBatch::Entry& entry : BatchView(message, size)) {
//     store(entry.header, entry.data);
//   }
// The constructor checks the whole batch, so reading it afterwards cannot fail. A view owns nothing
// and allocates nothing; it is valid as long as the bytes are there and do not change. So copy a
// batch out of shared memory first. Views and iterators are values, and several threads may read
// through the same view.
class ORVANE_API BatchView {
 public:
  class Iterator;
  using iterator = Iterator;
  using const_iterator = Iterator;

  // Checks the `size` bytes at `bytes`, which must be exactly one batch. Throws Ox_ErrnoException:
  //   kStatusCorruptMagic, a magic word is wrong;
  //   kStatusInvalidArgument, a header, a record's data or the number of entries does not fit into
  //     `size`, or bytes are left over after the last entry. The text names the entry, its offset,
  //     the bytes that it needs and the bytes that are there.
  BatchView(const unsigned char* bytes, std::size_t size);

  std::size_t size() const { return count; }  // the number of entries
  bool empty() const { return count == 0; }
  Iterator begin() const;
  Iterator end() const;

 private:
  friend class layout::BatchCheck;
  struct Stride;

  const unsigned char* bytes;
  std::size_t byteSize;
  std::uint32_t count;
};

// The distance from one header to the next.
//
// In most batches, many records in a row have the same length. The branch lets the processor guess
// that the next length is the same, and continue before it has been loaded. With plain arithmetic
// every header would wait for the one before it (measured: 10 ns for each entry instead of 5). The
// empty asm keeps the compiler from turning the branch into arithmetic.
struct BatchView::Stride {
  static constexpr std::size_t kLenOffset = 4;

  std::size_t from(const unsigned char* header) {
    std::uint32_t found;
    std::memcpy(&found, header + kLenOffset, sizeof found);
    if (found != bigEndianLen) {
      asm volatile("");
      bigEndianLen = found;
      bytes = pvk_shm_message_t::kSerializedSize + std::size_t{__builtin_bswap32(found)};
    }
    return bytes;
  }

  std::uint32_t bigEndianLen = 0;
  std::size_t bytes = pvk_shm_message_t::kSerializedSize;
};

// An iterator makes the entry when it is dereferenced. So it is an input iterator in C++17, and a
// forward iterator in C++20: in both, a batch can be read several times.
class ORVANE_API BatchView::Iterator {
 public:
  using iterator_concept = std::forward_iterator_tag;
  using iterator_category = std::input_iterator_tag;
  using value_type = ShmBatch::Entry;
  using difference_type = std::ptrdiff_t;
  using reference = ShmBatch::Entry;
  struct pointer {
    ShmBatch::Entry entry;
    const ShmBatch::Entry* operator->() const { return &entry; }
  };

  Iterator() = default;

  ShmBatch::Entry operator*() const;
  pointer operator->() const { return pointer{**this}; }
  Iterator& operator++() {
    position += stride.from(position);
    return *this;
  }
  Iterator operator++(int) {
    Iterator before = *this;
    ++*this;
    return before;
  }
  friend bool operator==(const Iterator& a, const Iterator& b) { return a.position == b.position; }
  friend bool operator!=(const Iterator& a, const Iterator& b) { return a.position != b.position; }

 private:
  friend class BatchView;
  explicit Iterator(const unsigned char* header) : position(header) {}

  const unsigned char* position = nullptr;
  Stride stride;
};

}  // namespace orvane
