#include "store/segment_file.hpp"

#include <algorithm>
#include <orvane/orvane.hpp>
#include <utility>

#include "store_format/checksum.hpp"
#include "store_format/manifest_lines.hpp"

namespace orvaned {
namespace {

// So much data shows whether compression makes it smaller.
constexpr std::uint64_t kTried = 1 << 20;

}  // namespace

SegmentFile::SegmentFile(StreamDirectory* folder, const std::string& name, Sync sync,
                         tool::Compressor* compressor)
    : folder(folder),
      plainName(name),
      sync(sync),
      compressor(folder != nullptr ? compressor : nullptr),
      plain(std::make_unique<OutputFile>(folder, name + tool::kUnfinished, sync)) {
  if (this->compressor != nullptr) {
    this->compressor->begin();
  }
}

void SegmentFile::append(Bytes data) {
  if (!compressed) {
    plain->append({}, data);
  }
  if (compressor != nullptr) {
    compress(data);
  }
}

void SegmentFile::compress(Bytes data) {
  const std::size_t untried = compressed ? data.size() : kTried - added.bytes;
  const Bytes first = data.first(std::min(data.size(), untried));
  compressor->add(first, output);
  ++added.records;
  added.bytes += data.size();
  added.checksum = tool::checksumOf(data, added.checksum);
  if (!compressed && added.bytes >= kTried) {
    compressor->flush(output);
    decide();
  }
  if (compressor != nullptr) {
    compressor->add(data.subspan(first.size()), output);
  }
}

// `output` is now the compressed form of all data, or of the first kTried bytes.
void SegmentFile::decide() {
  if (output.size() < std::min(added.bytes, kTried)) {
    compressed = std::make_unique<OutputFile>(
        folder, plainName + tool::kCompressed + tool::kUnfinished, sync);
  } else {
    stayPlain();
  }
}

void SegmentFile::end() {
  if (compressor == nullptr) {
    return;
  }
  compressor->end(output);
  if (!compressed) {
    decide();
  }
  compressor = nullptr;
}

void SegmentFile::flush() {
  if (!compressed) {
    return plain->flush();
  }
  if (compressor != nullptr) {
    compressor->flush(output);
  }
  try {
    writeCompressed();
  } catch (const Ox_ErrnoException&) {
    if (plain) {
      stayPlain();
    }
    throw;
  }
  // From here on, the compressed file has everything that the plain one has, with Sync::always on
  // the disk.
  if (const auto replaced = std::move(plain)) {
    replaced->discard();
  }
}

void SegmentFile::writeCompressed() {
  if (!output.empty()) {
    compressed->append(output);
    output.clear();
  }
  compressed->writeOut();
  written = added;
  compressed->flush();
}

// The plain file has everything that was flushed before.
void SegmentFile::stayPlain() {
  compressor = nullptr;
  output = {};
  if (const auto failed = std::move(compressed)) {
    failed->discard();
  }
}

void SegmentFile::settle() {
  if (compressed) {
    flush();
    compressed->settle();
  } else {
    plain->settle();
  }
}

void SegmentFile::finish() {
  (compressed ? compressed : plain)->finish(name());
}

std::string SegmentFile::name() const {
  return compressed ? plainName + tool::kCompressed : plainName;
}

}  // namespace orvaned
