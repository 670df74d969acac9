// Takes the place of zstd.cpp in a build without libzstd.

#include "store_format/zstd.hpp"

#include <utility>

namespace tool {

bool hasZstd() {
  return false;
}

Compressor::Compressor(int /*level*/, std::function<void()> working)
    : working(std::move(working)), context(nullptr, nullptr) {
  throw ZstdMissing();
}

void Compressor::begin() {}

void Compressor::add(std::span<const unsigned char> /*data*/,
                     std::vector<unsigned char>& /*output*/) {}

void Compressor::flush(std::vector<unsigned char>& /*output*/) {}

void Compressor::end(std::vector<unsigned char>& /*output*/) {}

void Compressor::compress(std::span<const unsigned char> /*data*/, int /*how*/,
                          std::vector<unsigned char>& /*output*/) {}

Decompressor::Decompressor() : context(nullptr, nullptr) {
  throw ZstdMissing();
}

std::optional<std::span<const unsigned char>> Decompressor::take(
    std::span<const unsigned char> /*bytes*/) {
  return std::nullopt;
}

}  // namespace tool
