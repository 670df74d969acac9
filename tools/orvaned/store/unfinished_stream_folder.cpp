#include "store/unfinished_stream_folder.hpp"

#include <algorithm>
#include <exception>

#include "store/frame_end.hpp"
#include "store_format/manifest_reader.hpp"
#include "store_format/zstd.hpp"

namespace orvaned {

bool UnfinishedStreamFolder::isFinished() {
  const std::vector<std::string> found = folder.names();
  names = {found.begin(), found.end()};
  return has(kManifest);
}

orvane::Receipt UnfinishedStreamFolder::finish(const StreamHead& known, const std::string& reason) {
  requireZstd();
  const ManifestContent found = readManifest(known);
  queueName = found.head.queue;
  for (const SegmentSummary& segment : found.segments) {
    check(segment);
  }
  if (found.receipt) {
    checkOthers(found.others);
  }
  removeReplaced();
  if (found.receipt && damaged.empty() && isAllListed(found.others)) {
    manifest.resume(found.whole);
    manifest.finish();
    return *found.receipt;
  }
  manifest.resume(found.part);
  if (found.part.bytes == 0) {
    manifest.begin(found.head);
  }
  addUnlisted();
  for (const Damage& damage : damaged) {
    manifest.addDamaged(damage.name, damage.reason);
  }
  receipt.stream = known.stream;
  receipt.end = damaged.empty() ? orvane::StreamEnd::cutOff : orvane::StreamEnd::broken;
  manifest.finish(receipt, reason);
  return receipt;
}

// Lines that cannot be read now must not count as missing: the manifest would be cut before them.
ManifestContent UnfinishedStreamFolder::readManifest(const StreamHead& known) {
  const std::string part = std::string(kManifest) + kUnfinished;
  if (!has(part)) {
    return {.head = known};
  }
  tool::ManifestReader reader(folder.read(part), folder.pathOf(part));
  ManifestContent content = readListed(reader, known);
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
    output.resume(segment.stored > 0 ? segment.stored : segment.bytes);
    output.finish(segment.file);
    names.erase(part);
    names.insert(segment.file);
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

// A file is not damaged because this program cannot read it.
void UnfinishedStreamFolder::requireZstd() const {
  if (!tool::hasZstd() && std::any_of(names.begin(), names.end(), tool::isCompressed)) {
    throw tool::ZstdMissing();
  }
}

// A server that died while a compressed file took the place of the plain one left both.
void UnfinishedStreamFolder::removeReplaced() {
  const std::string unfinished = kUnfinished;
  for (const std::string& name : std::set<std::string>(names)) {
    if (isUnlisted(name) && name.ends_with(unfinished) && !tool::isCompressed(name)) {
      const std::string final = name.substr(0, name.size() - unfinished.size()) + tool::kCompressed;
      const std::string compressed = has(final) ? final : final + unfinished;
      if (has(compressed)) {
        removeReplaced(name, compressed);
      }
    }
  }
}

// The compressed file has everything before the plain one is removed.
void UnfinishedStreamFolder::removeReplaced(const std::string& plain,
                                            const std::string& compressed) {
  std::string removed;
  try {
    removed = contentOf(compressed).bytes >= contentOf(plain).bytes ? plain : compressed;
  } catch (const std::exception&) {
    return;  // one of them is damaged, which is noticed where it is listed
  }
  if (isUnlisted(removed)) {
    folder.remove(removed);
    names.erase(removed);
  }
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
  tool::Content content;
  try {
    content = contentOf(name);
  } catch (const std::exception& e) {
    damaged.push_back({name, e.what()});
    return;
  }
  if (tool::isCompressed(name)) {
    content.stored = endFrame(folder, name, sync);
  }
  manifest.add(tool::UnfinishedFile{name, content.bytes, content.checksum, content.stored});
}

}  // namespace orvaned
