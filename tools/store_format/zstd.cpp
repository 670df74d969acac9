#include "store_format/zstd.hpp"

#include <zstd.h>

#include <algorithm>
#include <new>
#include <utility>

namespace tool {
namespace {

constexpr std::size_t kSlice = 128 << 10;

// The only failure is that of memory.
std::size_t checked(std::size_t result) {
  if (ZSTD_isError(result) != 0) {
    throw std::bad_alloc();
  }
  return result;
}

void freeCompressor(ZSTD_CCtx* context) {
  ZSTD_freeCCtx(context);
}

void freeDecompressor(ZSTD_DCtx* context) {
  ZSTD_freeDCtx(context);
}

}  // namespace

bool hasZstd() {
  return true;
}

// The manifest has a checksum of the plain data, so the frame has none: its end is then the same
// three bytes after any data.
Compressor::Compressor(int level, std::function<void()> working)
    : working(std::move(working)),
      context(ZSTD_createCCtx(), freeCompressor),
      compressed(std::make_unique_for_overwrite<unsigned char[]>(ZSTD_CStreamOutSize())) {
  if (context == nullptr) {
    throw std::bad_alloc();
  }
  checked(ZSTD_CCtx_setParameter(context.get(), ZSTD_c_compressionLevel, level));
  checked(ZSTD_CCtx_setParameter(context.get(), ZSTD_c_checksumFlag, 0));
}

void Compressor::begin() {
  checked(ZSTD_CCtx_reset(context.get(), ZSTD_reset_session_only));
}

void Compressor::add(std::span<const unsigned char> data, std::vector<unsigned char>& output) {
  while (!data.empty()) {
    const auto slice = data.first(std::min(data.size(), kSlice));
    compress(slice, ZSTD_e_continue, output);
    data = data.subspan(slice.size());
    if (working) {
      working();
    }
  }
}

void Compressor::flush(std::vector<unsigned char>& output) {
  compress({}, ZSTD_e_flush, output);
}

void Compressor::end(std::vector<unsigned char>& output) {
  compress({}, ZSTD_e_end, output);
}

// Compresses the data, and also what was buffered before if `how` says so.
void Compressor::compress(std::span<const unsigned char> data, int how,
                          std::vector<unsigned char>& output) {
  ZSTD_inBuffer in = {data.data(), data.size(), 0};
  std::size_t left = 0;
  do {
    ZSTD_outBuffer out = {compressed.get(), ZSTD_CStreamOutSize(), 0};
    left = checked(
        ZSTD_compressStream2(context.get(), &out, &in, static_cast<ZSTD_EndDirective>(how)));
    output.insert(output.end(), compressed.get(), compressed.get() + out.pos);
  } while (in.pos < in.size || (how != ZSTD_e_continue && left > 0));
}

Decompressor::Decompressor()
    : context(ZSTD_createDCtx(), freeDecompressor),
      data(std::make_unique_for_overwrite<unsigned char[]>(kLongestBlock)) {
  if (context == nullptr) {
    throw std::bad_alloc();
  }
}

std::optional<std::span<const unsigned char>> Decompressor::take(
    std::span<const unsigned char> bytes) {
  ZSTD_inBuffer in = {bytes.data(), bytes.size(), 0};
  ZSTD_outBuffer out = {data.get(), kLongestBlock, 0};
  while (in.pos < in.size) {
    if (ZSTD_isError(ZSTD_decompressStream(context.get(), &out, &in)) != 0) {
      return std::nullopt;
    }
  }
  return std::span<const unsigned char>(data.get(), out.pos);
}

}  // namespace tool
