#include "compare.hpp"

#include <algorithm>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "exit_code.hpp"

namespace tool {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kBlock = 1 << 20;

std::vector<fs::path> segmentFiles(const fs::path& streamFolder) {
  std::ifstream manifest(streamFolder / "manifest");
  if (!manifest) {
    throw Failure(kUnknown, "the stored stream has no manifest in " + streamFolder.string());
  }
  std::vector<fs::path> files;
  for (std::string line; std::getline(manifest, line);) {
    const std::size_t name = line.rfind(" file=");
    // A segment without data has no file: "-".
    if (line.starts_with("segment ") && name != std::string::npos && !line.ends_with(" file=-")) {
      files.push_back(streamFolder / line.substr(name + 6));
    }
  }
  return files;
}

[[noreturn]] void differs(std::uint64_t offset, const char* how) {
  throw Failure(kUnknown, "what was stored differs at byte " + std::to_string(offset) + ": " + how);
}

std::uint64_t firstDifference(const std::vector<unsigned char>& a,
                              const std::vector<unsigned char>& b) {
  const auto found = std::mismatch(a.begin(), a.end(), b.begin());
  return static_cast<std::uint64_t>(found.first - a.begin());
}

}  // namespace

void requireSameBytes(const fs::path& streamFolder, const Reader& source, Interrupt& interrupt) {
  std::vector<unsigned char> stored(kBlock);
  std::vector<unsigned char> expected(kBlock);
  std::uint64_t offset = 0;
  for (const fs::path& file : segmentFiles(streamFolder)) {
    Input segment(file);
    while (const std::size_t size = segment.read(stored.data(), kBlock, interrupt)) {
      const std::size_t sourceSize = source(expected.data(), size);
      if (std::memcmp(stored.data(), expected.data(), sourceSize) != 0) {
        differs(offset + firstDifference(stored, expected), "another value");
      }
      offset += sourceSize;
      if (sourceSize < size) {
        differs(offset, "the source ends there");
      }
    }
  }
  if (source(expected.data(), 1) != 0) {
    differs(offset, "the store ends there");
  }
}

}  // namespace tool
