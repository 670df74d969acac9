#include "store_format/segment_content.hpp"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <stdexcept>
#include <utility>

#include "store_format/manifest_lines.hpp"
#include "store_format/stored_file.hpp"

namespace tool {
namespace {

constexpr std::size_t kBlock = 1 << 20;

}  // namespace

SegmentContent::SegmentContent(Fd file, std::string path, std::span<unsigned char> block)
    : file(std::move(file)), path(std::move(path)), block(block) {
  if (isCompressed(this->path)) {
    frame.emplace(std::move(this->file), this->path);
  } else if (block.empty()) {
    ownBlock = std::make_unique_for_overwrite<unsigned char[]>(kBlock);
    this->block = {ownBlock.get(), kBlock};
  }
}

std::span<const unsigned char> SegmentContent::next(std::uint64_t most) {
  if (!frame) {
    return nextPlain(most);
  }
  if (left.empty()) {
    left = nextBlock();
  }
  const auto bytes = left.first(std::min<std::uint64_t>(left.size(), most));
  left = left.subspan(bytes.size());
  return bytes;
}

void SegmentContent::skip(std::uint64_t bytes) {
  if (!frame) {
    if (lseek(file.get(), static_cast<off_t>(bytes), SEEK_CUR) < 0) {
      failToRead(path, errno);
    }
    return;
  }
  while (bytes > 0) {
    const std::size_t skipped = next(bytes).size();
    if (skipped == 0) {
      return;
    }
    bytes -= skipped;
  }
}

std::span<const unsigned char> SegmentContent::nextBlock() {
  const auto bytes = frame->next();
  if (bytes.empty() && !frame->isComplete() && !path.ends_with(kUnfinished)) {
    throw std::runtime_error("its compressed data has no end: cannot read all of " + path);
  }
  return bytes;
}

std::span<const unsigned char> SegmentContent::nextPlain(std::uint64_t most) {
  const ssize_t size = read(file.get(), block.data(), std::min<std::uint64_t>(block.size(), most));
  if (size < 0) {
    failToRead(path, errno);
  }
  plainBytes += static_cast<std::uint64_t>(size);
  return block.first(static_cast<std::size_t>(size));
}

}  // namespace tool
