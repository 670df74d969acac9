#include "store_format/manifest.hpp"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "store_format/manifest_reader.hpp"

namespace tool {
namespace {

// Thrown for a manifest that is not what a server writes.
struct Damaged {
  std::string fault;
};

// Returns the lines without the checksum, which is checked.
std::vector<std::string> checkedLinesOf(const std::string& path) {
  ManifestReader reader(openStored(path), path);
  std::vector<std::string> lines;
  while (auto line = reader.next()) {
    lines.push_back(std::move(*line));
  }
  if (reader.error() != 0) {
    failToRead(path, reader.error());
  }
  if (const std::string fault = reader.fault(); !fault.empty()) {
    throw Damaged{fault};
  }
  if (reader.format() != kFirstFormat) {
    lines.pop_back();
  }
  return lines;
}

std::string joined(const std::vector<std::string>& lines) {
  std::string text;
  for (const std::string& line : lines) {
    text += line + "\n";
  }
  return text;
}

// Takes a line between the head and the reason. A line that is not known is skipped, because it is
// missing when the manifest is written again.
void takeLine(const std::string& line, Manifest& manifest) {
  if (auto segment = parseSegment(line)) {
    manifest.segments.push_back(std::move(*segment));
  } else if (auto unfinished = parseUnfinished(line)) {
    manifest.unfinished.push_back(std::move(*unfinished));
  } else if (auto damaged = parseDamaged(line, manifest.head.format)) {
    manifest.damaged.push_back(std::move(*damaged));
  } else if (const auto others = parseOthers(line)) {
    manifest.others = others;
  } else if (const auto skipped = parseSkipped(line)) {
    manifest.skipped = skipped;
  } else if (auto receipt = orvane::parseReceipt(line)) {
    manifest.ending.receipt = std::move(*receipt);
  } else if (const auto ended = parseEnded(line)) {
    manifest.ending.ended = ended;
  }
}

// A manifest is valid exactly if writing what was read gives the same text. (A reason of several
// lines is one line of `written`.)
void requireSame(const std::vector<std::string>& lines, const std::vector<std::string>& written) {
  if (lines != written && joined(lines) != joined(written)) {
    const auto differs = std::mismatch(lines.begin(), lines.end(), written.begin(), written.end());
    throw Damaged{"line " + std::to_string(differs.first - lines.begin() + 1) +
                  " is not what a server writes there"};
  }
}

Manifest readWhole(const std::string& path) {
  const std::vector<std::string> lines = checkedLinesOf(path);
  Manifest manifest;
  StreamHeadParser head;
  auto line = lines.begin();
  for (; line != lines.end() && head.take(*line); ++line) {
  }
  manifest.head = head.head();
  for (; line != lines.end() && !isReason(*line); ++line) {
    takeLine(*line, manifest);
  }
  if (line != lines.end()) {
    manifest.ending.reason = parseReason(*line, manifest.head.format).value_or("");
    for (++line; line != lines.end(); ++line) {
      manifest.ending.reason += "\n" + *line;  // in format 1, the reason is the rest of the file
    }
  }
  requireSame(lines, linesOf(manifest));
  return manifest;
}

}  // namespace

std::vector<std::string> linesOf(const Manifest& manifest) {
  std::vector<std::string> lines = linesOf(manifest.head);
  for (const SegmentSummary& segment : manifest.segments) {
    lines.push_back(textOf(segment));
  }
  for (const UnfinishedFile& unfinished : manifest.unfinished) {
    lines.push_back(textOf(unfinished));
  }
  for (const DamagedFile& damaged : manifest.damaged) {
    lines.push_back(textOf(damaged, manifest.head.format));
  }
  if (manifest.others) {
    lines.push_back(textOf(*manifest.others));
  }
  if (manifest.skipped) {
    lines.push_back(skippedLine(*manifest.skipped));
  }
  for (std::string& last : linesOf(manifest.ending, manifest.head.format)) {
    lines.push_back(std::move(last));
  }
  return lines;
}

Manifest readManifest(const std::string& path) {
  std::string fault;
  auto manifest = readManifest(path, fault);
  if (!manifest) {
    throw std::runtime_error("the manifest is damaged: " + fault + ": " + path);
  }
  return std::move(*manifest);
}

std::optional<Manifest> readManifest(const std::string& path, std::string& fault) {
  try {
    return readWhole(path);
  } catch (const Damaged& damaged) {
    fault = damaged.fault;
    return std::nullopt;
  }
}

}  // namespace tool
