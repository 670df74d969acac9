#include "store/manifest_content.hpp"

namespace orvaned {
namespace {

ManifestPart partSoFar(const tool::ManifestReader& manifest) {
  return {manifest.format(), manifest.bytes(), manifest.checksum()};
}

// A head that is torn still tells the format, and for whom the stream was.
StreamHead mended(const StreamHead& read, const StreamHead& known, int format) {
  StreamHead head = known;
  head.format = format == 0 ? known.format : format;
  head.queue = read.queue.empty() ? known.queue : read.queue;
  head.producer = read.producer ? read.producer : known.producer;
  head.label = read.label.empty() ? known.label : read.label;
  return head;
}

}  // namespace

ManifestContent readListed(tool::ManifestReader& manifest, const StreamHead& known) {
  ManifestContent listed;
  tool::StreamHeadParser head;
  std::optional<std::string> line = manifest.next();
  for (; line && head.take(*line); line = manifest.next()) {
    listed.part = partSoFar(manifest);
  }
  const bool isOfThisStream = head.isValid() && head.head().stream == known.stream;
  if (!isOfThisStream || !head.isComplete()) {
    const bool mayMend = isOfThisStream || head.head().stream.empty();
    return {.head = mayMend ? mended(head.head(), known, manifest.format()) : known};
  }
  listed.head = head.head();
  for (; line; line = manifest.next()) {
    const auto segment = parseSegment(*line);
    if (!segment) {
      break;
    }
    listed.segments.push_back(*segment);
    listed.part = partSoFar(manifest);
  }
  if (const auto others = parseOthers(line.value_or(""))) {
    listed.others = *others;
  }
  std::optional<orvane::Receipt> receipt;
  bool isWhole = false;
  while ((line = manifest.next())) {
    if (const auto found = orvane::parseReceipt(*line)) {
      receipt = found;
    }
    isWhole = isWhole || tool::isReason(*line);
  }
  if (isWhole && (listed.head.format == tool::kFirstFormat || manifest.fault().empty())) {
    listed.receipt = receipt;
    listed.whole = partSoFar(manifest);
  }
  return listed;
}

}  // namespace orvaned
