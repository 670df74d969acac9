#include "store/manifest_content.hpp"

namespace orvaned {

ManifestContent readListed(tool::ManifestReader& manifest, const std::string& queue,
                           const std::string& stream) {
  ManifestContent listed;
  for (const std::string& first : tool::firstLines(queue, stream)) {
    if (manifest.next() != first) {
      return {};
    }
  }
  std::optional<std::string> line = manifest.next();
  for (; line; line = manifest.next()) {
    const auto segment = parseSegment(*line);
    if (!segment) {
      break;
    }
    listed.segments.push_back(*segment);
    listed.bytes = manifest.bytes();
  }
  if (const auto others = parseOthers(line.value_or(""))) {
    listed.others = *others;
  }
  std::optional<orvane::Receipt> receipt;
  while ((line = manifest.next())) {
    if (const auto found = orvane::parseReceipt(*line)) {
      receipt = found;
    }
    if (tool::isReason(*line)) {
      listed.receipt = receipt;
    }
  }
  listed.allBytes = manifest.bytes();
  return listed;
}

}  // namespace orvaned
