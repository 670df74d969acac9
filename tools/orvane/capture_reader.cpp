#include "capture_reader.hpp"

#include <algorithm>

#include "common/capture_header.hpp"

namespace tool {
namespace {

constexpr std::size_t kBlock = 1 << 20;
constexpr auto kMagic = CaptureHeader::kMagic;

bool isPrintable(unsigned char c) {
  return c > ' ' && c < 0x7f;
}

}  // namespace

CaptureReader::CaptureReader(Input& file, Interrupt& endsIt) : input(file), interrupt(endsIt) {
  fill(kMagic.size());
  isCapture = beginsMessage(0);
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
  const auto header =
      fill(CaptureHeader::kSize) ? parseCaptureHeader(waiting().data()) : std::nullopt;
  if (header && fill(CaptureHeader::kSize + header->queueSize + header->messageSize)) {
    const auto name = waiting().subspan(CaptureHeader::kSize, header->queueSize);
    if (std::all_of(name.begin(), name.end(), isPrintable)) {
      return message(header->queueSize, header->messageSize);
    }
  }
  return stray();
}

// Makes at least so many bytes wait. False: there are not so many.
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

bool CaptureReader::beginsMessage(std::size_t position) const {
  const auto bytes = waiting().subspan(position);
  return bytes.size() >= kMagic.size() && std::equal(kMagic.begin(), kMagic.end(), bytes.begin());
}

CaptureReader::Piece CaptureReader::message(std::size_t queueSize, std::size_t messageSize) {
  take(CaptureHeader::kSize);
  const Piece queue = take(queueSize);
  Piece piece = take(messageSize);
  piece.queue.assign(queue.bytes.begin(), queue.bytes.end());
  return piece;
}

// All up to where the next message begins.
CaptureReader::Piece CaptureReader::stray() {
  std::size_t size = 1;
  while (fill(size + kMagic.size()) && !beginsMessage(size)) {
    ++size;
  }
  Piece piece = take(beginsMessage(size) ? size : waiting().size());
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
