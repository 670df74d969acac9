#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <vector>

struct ZSTD_CCtx_s;
struct ZSTD_DCtx_s;

namespace tool {

// libzstd, in so far as these programs use it. They can be built without it: zstd.cpp is then
// replaced by without_zstd.cpp, and both classes throw ZstdMissing when they are constructed.
bool hasZstd();

// Not a std::runtime_error: a file that this program cannot read is not damaged.
class ZstdMissing : public std::logic_error {
 public:
  ZstdMissing()
      : std::logic_error(
            "this program was built without libzstd, and cannot read or write compressed segments: "
            "use one that was built with it") {}
};

// Compresses data into frames, one after another. Every call appends to `output`. Throws
// std::bad_alloc.
class Compressor {
 public:
  static constexpr int kFastest = 1;
  static constexpr int kDefault = 3;
  static constexpr int kSmallest = 19;  // higher levels need far more memory, also to decompress

  // Calls `working`, if it is given, after each 128 KiB: at a high level, much data takes long.
  explicit Compressor(int level, std::function<void()> working = {});

  // Forgets a frame that was not ended.
  void begin();

  void add(std::span<const unsigned char> data, std::vector<unsigned char>& output);

  // Completes a block: a reader of the output gets everything that was added.
  void flush(std::vector<unsigned char>& output);

  // Completes the frame.
  void end(std::vector<unsigned char>& output);

 private:
  void compress(std::span<const unsigned char> data, int how, std::vector<unsigned char>& output);

  const std::function<void()> working;
  std::unique_ptr<ZSTD_CCtx_s, void (*)(ZSTD_CCtx_s*)> context;
  std::unique_ptr<unsigned char[]> compressed;
};

// Decompresses one frame.
class Decompressor {
 public:
  // The data of a block has at most 128 KiB.
  static constexpr std::size_t kLongestBlock = 128 << 10;

  Decompressor();

  // Takes the frame's header or a block, whole, and returns the block's data, which is valid until
  // the next call. Returns nothing if the block is invalid.
  std::optional<std::span<const unsigned char>> take(std::span<const unsigned char> bytes);

 private:
  std::unique_ptr<ZSTD_DCtx_s, void (*)(ZSTD_DCtx_s*)> context;
  std::unique_ptr<unsigned char[]> data;
};

}  // namespace tool
