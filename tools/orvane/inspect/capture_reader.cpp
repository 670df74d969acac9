#include "inspect/capture_reader.hpp"

#include <algorithm>
#include <orvane/orvane.hpp>

namespace tool {
namespace {

constexpr std::size_t kBlock = 1 << 20;
constexpr auto kMagic = CaptureHeader::kMagic;

bool isPrintable(unsigned char c) {
  return c > ' ' && c < 0x7f;
}

bool isBatch(std::span<const unsigned char> bytes) {
  try {
    const orvane::BatchView view(bytes.data(), bytes.size());
    return true;
  } catch (const Ox_ErrnoException&) {
    return false;
  }
}

std::size_t sizeOf(const CaptureHeader& header) {
  return CaptureHeader::kSize + header.queueSize + header.messageSize;
}

}  // namespace

CaptureReader::CaptureReader(Input& input, Interrupt& interrupt)
    : input(input), interrupt(interrupt) {
  isCapture = fill(kMagic.size()) && std::equal(kMagic.begin(), kMagic.end(), window.begin());
}

std::optional<CaptureReader::Piece> CaptureReader::next() {
  if (!fill(1)) {
    return std::nullopt;
  }
  if (!isCapture) {
    while (fill(waiting().size() + 1)) {
    }
    return take(waiting().size());
  }
  const auto header = headerAt(0);
  return header && isWhole(*header) ? message(header->queueSize, header->messageSize) : stray();
}

// Reads on until `size` bytes are waiting. Returns false if the file has fewer.
bool CaptureReader::fill(std::size_t size) {
  if (waiting().size() >= size) {
    return true;
  }
  window.erase(window.begin(), window.begin() + static_cast<std::ptrdiff_t>(begin));
  begin = 0;
  while (window.size() < size && !ended) {
    const std::size_t before = window.size();
    window.resize(before + kBlock);
    const std::size_t got = input.read(&window[before], kBlock, interrupt);
    window.resize(before + got);
    ended = got < kBlock;
  }
  return window.size() >= size;
}

// Returns the header if a message may begin here: a header and a queue's name.
std::optional<CaptureHeader> CaptureReader::headerAt(std::size_t position) {
  if (!fill(position + CaptureHeader::kSize)) {
    return std::nullopt;
  }
  const auto header = parseCaptureHeader(&waiting()[position]);
  if (!header || !fill(position + CaptureHeader::kSize + header->queueSize)) {
    return std::nullopt;
  }
  const auto name = waiting().subspan(position + CaptureHeader::kSize, header->queueSize);
  return std::all_of(name.begin(), name.end(), isPrintable) ? header : std::nullopt;
}

bool CaptureReader::isWhole(const CaptureHeader& header) {
  const std::size_t size = sizeOf(header);
  if (!fill(size)) {
    return false;
  }
  if (isBatch(waiting().subspan(size - header.messageSize, header.messageSize)) ||
      !fill(size + 1) || headerAt(size)) {
    return true;
  }
  std::size_t position = 1;
  while (position < size && !headerAt(position)) {
    ++position;
  }
  return position == size;
}

CaptureReader::Piece CaptureReader::message(std::size_t queueSize, std::size_t messageSize) {
  take(CaptureHeader::kSize);
  const Piece queue = take(queueSize);
  Piece piece = take(messageSize);
  piece.queue.assign(queue.bytes.begin(), queue.bytes.end());
  return piece;
}

// Takes all bytes before the next place where a message may begin.
CaptureReader::Piece CaptureReader::stray() {
  std::size_t size = 1;
  while (fill(size + 1) && !headerAt(size)) {
    ++size;
  }
  Piece piece = take(size);
  piece.isMessage = false;
  return piece;
}

CaptureReader::Piece CaptureReader::take(std::size_t size) {
  Piece piece = {waiting().first(size), offset};
  begin += size;
  offset += size;
  return piece;
}

}  // namespace tool
