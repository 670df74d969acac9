#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "link.hpp"

namespace bench {

// The data of a stream that changes from record to record. It begins again after `size` bytes,
// which is more than what a compressor looks back.
class Content {
 public:
  // Lines of a log, which a compressor makes some times smaller, or bytes that none makes smaller.
  static Content text(std::size_t size);
  static Content noise(std::size_t size);

  // The data of record `number`, if all records have this size.
  Bytes record(std::uint64_t number, std::size_t size) const;

 private:
  explicit Content(std::vector<unsigned char> bytes) : bytes(std::move(bytes)) {}

  std::vector<unsigned char> bytes;
};

}  // namespace bench
