#include "inspect/stream_manifest.hpp"

#include <sys/stat.h>

#include <optional>
#include <orvane/receipt.hpp>

#include "store_format/manifest_lines.hpp"
#include "store_format/stored_file.hpp"

namespace tool {
namespace {

std::optional<ListedSegment> segmentIn(const std::string& line) {
  if (const auto segment = parseSegment(line)) {
    return ListedSegment{segment->number, fileOf(*segment), !segment->file.ends_with(kUnfinished)};
  }
  const auto unfinished = parseUnfinished(line);
  const auto number = unfinished ? segmentNumberIn(unfinished->file) : std::nullopt;
  return number ? std::optional(ListedSegment{*number, fileOf(*unfinished), false}) : std::nullopt;
}

// Adds what a line lists to what the receipt should say.
void add(const std::string& line, orvane::Receipt& sum) {
  if (const auto segment = parseSegment(line)) {
    sum.records += segment->records;
    sum.bytes += segment->bytes;
    sum.segments += segment->bytes > 0 ? 1 : 0;
  } else if (const auto others = parseOthers(line)) {
    sum.records += others->records;
    sum.bytes += others->bytes;
  }
}

bool isSum(const orvane::Receipt& receipt, const orvane::Receipt& sum) {
  return receipt.records == sum.records && receipt.bytes == sum.bytes &&
         receipt.segments == sum.segments;
}

}  // namespace

std::string manifestOf(const std::string& folder) {
  return folder + "/" + kManifest;
}

bool hasEnded(const std::string& folder) {
  struct stat status = {};
  return lstat(manifestOf(folder).c_str(), &status) == 0;
}

void forEachSegment(const std::string& manifest,
                    const std::function<bool(const ListedSegment&)>& visit) {
  ManifestReader reader(openStored(manifest), manifest);
  while (const auto line = reader.next()) {
    const auto segment = segmentIn(*line);
    if (segment && !visit(*segment)) {
      return;
    }
  }
  if (reader.error() != 0) {
    failToRead(manifest, reader.error());
  }
}

// In format 1 the manifest has no checksum, but a line that is missing contradicts the receipt.
Flaws flawsOf(const std::string& folder) {
  const std::string path = manifestOf(folder);
  ManifestReader manifest(openStored(path), path);
  std::optional<orvane::Receipt> receipt;
  orvane::Receipt sum;
  while (const auto line = manifest.next()) {
    add(*line, sum);
    receipt = receipt ? receipt : orvane::parseReceipt(*line);
  }
  if (manifest.error() != 0) {
    failToRead(path, manifest.error());
  }
  const std::string fault = manifest.fault();
  if (!fault.empty() || !receipt) {
    return {fault.empty() ? "it has no receipt" : fault, ""};
  }
  if (receipt->end != orvane::StreamEnd::closed) {
    return {"", "it ended as " + textOf(receipt->end)};
  }
  return {isSum(*receipt, sum) ? "" : "its receipt does not match its other lines", ""};
}

}  // namespace tool
