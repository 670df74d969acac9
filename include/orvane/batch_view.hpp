#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>

#include "orvane/batch.hpp"
#include "orvane/export.hpp"

namespace orvane {

// A received batch, checked: the reader for bytes from a process that is not trusted.
//   for (const ShmBatch::Entry& entry : BatchView(message, size)) {
//     store(entry.header, entry.data);
//   }
// All or nothing: the constructor checks the whole batch, reading it afterwards cannot fail. A view
// owns nothing and allocates nothing; it is valid while the bytes are, and they must not change
// meanwhile (so copy a batch out of shared memory first). Views and iterators are values; separate
// threads may read through the same view.
class ORVANE_API BatchView {
 public:
  class Iterator;
  using iterator = Iterator;
  using const_iterator = Iterator;

  // Checks the `size` bytes at `bytes`, all of one batch. Throws Ox_ErrnoException:
  // kStatusCorruptMagic with the sentences of the trusting reader; kStatusInvalidArgument when a
  // header, a record's data or the entry count does not fit the size, naming the entry, its offset,
  // what it needs and what is there; and also when bytes are left over behind the last entry: a
  // batch's size is exact, so a difference means that one of the two numbers is wrong.
  BatchView(const unsigned char* bytes, std::size_t size);

  std::size_t size() const { return count; }
  bool empty() const { return count == 0; }
  Iterator begin() const;
  Iterator end() const;

 private:
  struct Stride;

  const unsigned char* bytes;
  std::size_t byteSize;
  std::uint32_t count;
};

// How far it is from one header to the next.
//
// Most batches hold runs of records of one length. The branch lets the processor guess that the
// next length is the same and go on before it has been loaded; as plain arithmetic every header
// would wait for the one before it (measured: 10 ns an entry instead of 5). The empty asm keeps the
// compiler from turning the branch back into arithmetic.
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

// Makes each entry as it is dereferenced, so in C++17's terms it is an input iterator; it is
// multi-pass all the same, and a forward iterator in C++20's.
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
