#include "store_format/manifest_summary.hpp"

#include <sys/types.h>
#include <unistd.h>

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>

#include "store_format/checksum.hpp"
#include "store_format/manifest_lines.hpp"

namespace tool {
namespace {

// A manifest with some twenty segments is shorter, and is read with one call.
constexpr std::size_t kBlock = 16384;

std::string_view readAt(const Fd& file, off_t offset, char* buffer) {
  const ssize_t size = pread(file.get(), buffer, kBlock, offset);
  return {buffer, size < 0 ? 0 : static_cast<std::size_t>(size)};
}

// Removes the first line of `text`. Returns nothing if no line has an end.
std::optional<std::string> takeLine(std::string_view& text) {
  const std::size_t end = text.find('\n');
  if (end == std::string_view::npos) {
    return std::nullopt;
  }
  std::string line(text.substr(0, end));
  text.remove_prefix(end + 1);
  return line;
}

// Is the last line the checksum of all lines before it?
bool endsWithChecksum(std::string_view text) {
  const std::size_t size = checksumLine(0).size() + 1;
  if (text.size() < size) {
    return false;
  }
  const std::string_view lines = text.substr(0, text.size() - size);
  const std::uint32_t checksum =
      checksumOf({reinterpret_cast<const unsigned char*>(lines.data()), lines.size()});
  return text.substr(lines.size()) == checksumLine(checksum) + "\n";
}

std::optional<StreamHead> headIn(std::string_view text) {
  StreamHeadParser head;
  for (auto line = takeLine(text); line && head.take(*line); line = takeLine(text)) {
  }
  return head.isValid() ? std::optional(head.head()) : std::nullopt;
}

// Reads the lines from the receipt on; `summary` has the head.
bool readEnding(std::string_view text, ManifestSummary& summary) {
  const std::size_t before = text.find("\nreceipt ");
  if (before == std::string_view::npos) {
    return false;
  }
  text.remove_prefix(before + 1);
  auto receipt = orvane::parseReceipt(takeLine(text).value_or(""));
  if (!receipt) {
    return false;
  }
  summary.receipt = std::move(*receipt);
  // In format 1, what follows the reason is a part of it.
  for (auto line = takeLine(text); line && !isReason(*line); line = takeLine(text)) {
    if (const auto ended = parseEnded(*line)) {
      summary.ended = ended;
    }
  }
  return true;
}

}  // namespace

std::optional<ManifestSummary> readSummary(const Fd& manifest) {
  char block[kBlock];  // not initialized, because that takes longer than reading a short manifest
  std::string_view text = readAt(manifest, 0, block);
  auto head = headIn(text);
  if (!head) {
    return std::nullopt;
  }
  const bool isAll = text.size() < kBlock;
  if (!isAll) {
    text = readAt(manifest, lseek(manifest.get(), 0, SEEK_END) - off_t{kBlock}, block);
  } else if (head->format != kFirstFormat && !endsWithChecksum(text)) {
    return std::nullopt;
  }
  ManifestSummary summary = {std::move(*head), {}, {}};
  return readEnding(text, summary) ? std::optional(std::move(summary)) : std::nullopt;
}

}  // namespace tool
