#include "commands/demo_source.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "exit.hpp"

namespace tool {
namespace {

constexpr std::uint64_t kGeneratedSize = 256 << 20;

std::uint64_t scrambled(std::uint64_t index) {
  std::uint64_t x = (index + 1) * 0x9E3779B97F4A7C15;
  x = (x ^ (x >> 32)) * 0xD6E8FEB86659FD93;
  return x ^ (x >> 32);
}

void generate(std::uint64_t offset, unsigned char* buffer, std::size_t size) {
  for (std::size_t i = 0; i < size;) {
    const std::uint64_t word = scrambled((offset + i) / sizeof word);
    const std::size_t skip = (offset + i) % sizeof word;
    const std::size_t count = std::min(sizeof word - skip, size - i);
    if (count == sizeof word) {
      std::memcpy(buffer + i, &word, sizeof word);
    } else {
      std::memcpy(buffer + i, reinterpret_cast<const unsigned char*>(&word) + skip, count);
    }
    i += count;
  }
}

Reader generatedBytes() {
  return [offset = std::uint64_t{0}](unsigned char* buffer, std::size_t wanted) mutable {
    const std::size_t size = std::min<std::uint64_t>(wanted, kGeneratedSize - offset);
    generate(offset, buffer, size);
    offset += size;
    return size;
  };
}

// Reads from `source` and copies what was read to the file `path`.
Reader copying(const Reader& source, const std::filesystem::path& path) {
  const std::shared_ptr<std::FILE> file(std::fopen(path.c_str(), "wbe"), [](std::FILE* opened) {
    if (opened != nullptr) {
      std::fclose(opened);
    }
  });
  return [source, file, path](unsigned char* buffer, std::size_t wanted) {
    const std::size_t size = source(buffer, wanted);
    if (file == nullptr || std::fwrite(buffer, 1, size, file.get()) != size ||
        (size < wanted && std::fflush(file.get()) != 0)) {
      throw Failure(kInputFailed, "cannot keep the input for the comparison in " + path.string() +
                                      ": " + std::strerror(errno) +
                                      "; set TMPDIR to a folder with more room");
    }
    return size;
  };
}

}  // namespace

DemoSource::DemoSource(const std::string& path) {
  if (!path.empty()) {
    input.emplace(path);
  }
}

std::optional<std::uint64_t> DemoSource::size() const {
  return input ? input->size() : kGeneratedSize;
}

Reader DemoSource::readFirst(const std::filesystem::path& spool, Interrupt& interrupt) {
  if (!input) {
    return generatedBytes();
  }
  if (input->isRegular()) {
    return input->reader(interrupt);
  }
  spoolPath = spool;
  return copying(input->reader(interrupt), spool);
}

Reader DemoSource::readAgain(Interrupt& interrupt) {
  if (!input) {
    return generatedBytes();
  }
  if (input->isRegular()) {
    input->rewind();
    return input->reader(interrupt);
  }
  return spooled.emplace(spoolPath).reader(interrupt);
}

}  // namespace tool
