#include "store/unfinished_stream_folder.hpp"

#include <algorithm>
#include <exception>

#include "store_format/manifest_reader.hpp"

namespace orvaned {

bool UnfinishedStreamFolder::isFinished() {
  const std::vector<std::string> found = folder.names();
  names = {found.begin(), found.end()};
  return has(kManifest);
}

orvane::Receipt UnfinishedStreamFolder::finish(const std::string& queue, const std::string& stream,
                                               const std::string& reason) {
  const ManifestContent found = readManifest(queue, stream);
  for (const SegmentSummary& segment : found.segments) {
    check(segment);
  }
  if (found.receipt) {
    checkOthers(found.others);
  }
  if (found.receipt && damaged.empty() && isAllListed(found.others)) {
    manifest.resume(found.allBytes);
    manifest.finish();
    return *found.receipt;
  }
  manifest.resume(found.bytes);
  if (found.bytes == 0) {
    manifest.begin(queue, stream);
  }
  addUnlisted();
  for (const Damage& damage : damaged) {
    manifest.addDamaged(damage.name, damage.reason);
  }
  receipt.stream = stream;
  receipt.end = damaged.empty() ? orvane::StreamEnd::cutOff : orvane::StreamEnd::broken;
  manifest.finish(receipt, reason);
  return receipt;
}

// Lines that cannot be read now must not count as missing: the manifest would be cut before them.
ManifestContent UnfinishedStreamFolder::readManifest(const std::string& queue,
                                                     const std::string& stream) {
  const std::string part = std::string(kManifest) + kUnfinished;
  if (!has(part)) {
    return {};
  }
  tool::ManifestReader reader(folder.read(part));
  ManifestContent content = readListed(reader, queue, stream);
  if (reader.error() != 0) {
    throwStoreFailed(reader.error(), "read", folder.pathOf(part));
  }
  return content;
}

void UnfinishedStreamFolder::check(const SegmentSummary& segment) {
  if (segment.file.empty()) {
    return count(receipt, segment);
  }
  const std::string part = segment.file + kUnfinished;
  const bool renamed = has(segment.file) || !has(part);
  listed.insert({segment.file, part});
  const std::string fault = faultOf(renamed ? segment.file : part, tool::fileOf(segment).content);
  if (!fault.empty()) {
    damaged.push_back({segment.file, fault});
    return;
  }
  if (!renamed) {
    OutputFile output(&folder, part, sync);
    output.resume(segment.bytes);
    output.finish(segment.file);
  }
  count(receipt, segment);
}

void UnfinishedStreamFolder::checkOthers(const OtherRecords& others) {
  if (others.records == 0) {
    return;
  }
  const std::string fault = faultOf(kOtherRecords, tool::fileOf(others).content);
  if (!fault.empty()) {
    listed.insert(kOtherRecords);
    damaged.push_back({kOtherRecords, fault});
  }
}

std::string UnfinishedStreamFolder::faultOf(const std::string& name,
                                            const tool::Content& listedContent) {
  try {
    return tool::faultOf(contentOf(name), listedContent);
  } catch (const std::exception& e) {
    return e.what();
  }
}

tool::Content UnfinishedStreamFolder::contentOf(const std::string& name) {
  return tool::contentOf(folder.read(name), folder.pathOf(name));
}

bool UnfinishedStreamFolder::isUnlisted(const std::string& name) const {
  const bool isRecords = name == kOtherRecords || name.starts_with(tool::kSegmentPrefix);
  return isRecords && !listed.contains(name);
}

// False if the broker created a file, but the worker died before it learned of it.
bool UnfinishedStreamFolder::isAllListed(const OtherRecords& others) const {
  return std::none_of(names.begin(), names.end(), [&](const std::string& name) {
    return isUnlisted(name) && (name != kOtherRecords || others.records == 0);
  });
}

void UnfinishedStreamFolder::addUnlisted() {
  for (const std::string& name : names) {
    if (isUnlisted(name)) {
      addUnlisted(name);
    }
  }
}

void UnfinishedStreamFolder::addUnlisted(const std::string& name) {
  if (name != kOtherRecords && !name.ends_with(kUnfinished)) {
    damaged.push_back({name, "it is not listed"});
    return;
  }
  try {
    const tool::Content content = contentOf(name);
    manifest.add(tool::UnfinishedFile{name, content.bytes, content.checksum});
  } catch (const std::exception& e) {
    damaged.push_back({name, e.what()});
  }
}

}  // namespace orvaned
