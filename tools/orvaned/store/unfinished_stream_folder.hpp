#pragma once

#include <cstddef>
#include <orvane/orvane.hpp>
#include <set>
#include <string>
#include <vector>

#include "store/manifest_content.hpp"
#include "store/manifest_file.hpp"
#include "store/output_file.hpp"
#include "store/stream_directory.hpp"

namespace orvaned {

// The folder of a stream that a server or a worker left when it died.
class UnfinishedStreamFolder {
 public:
  UnfinishedStreamFolder(StreamDirectory& folder, Sync sync)
      : folder(folder), sync(sync), manifest(&folder, sync) {}

  // Has another process finished it in the meantime?
  bool isFinished();

  // Returns its receipt. `known` is what its manifest gets if its own first lines are lost. Throws
  // tool::ZstdMissing, and changes nothing, if this program cannot read a compressed segment.
  orvane::Receipt finish(const StreamHead& known, const std::string& reason);

  // The queue, as finish() has found it in the manifest.
  const std::string& queue() const { return queueName; }

  std::size_t damagedFiles() const { return damaged.size(); }

 private:
  struct Damage {
    std::string name;
    std::string reason;
  };

  bool has(const std::string& name) const { return names.contains(name); }
  ManifestContent readManifest(const StreamHead& known);
  void check(const SegmentSummary& segment);
  void checkOthers(const OtherRecords& others);
  std::string faultOf(const std::string& name, const tool::Content& listedContent);
  tool::Content contentOf(const std::string& name);
  void requireZstd() const;
  void removeReplaced();
  void removeReplaced(const std::string& plain, const std::string& compressed);
  bool isUnlisted(const std::string& name) const;
  bool isAllListed(const OtherRecords& others) const;
  void addUnlisted();
  void addUnlisted(const std::string& name);

  StreamDirectory& folder;
  const Sync sync;
  ManifestFile manifest;
  std::string queueName;
  std::set<std::string> names;   // of all files in the folder
  orvane::Receipt receipt;       // of the whole files
  std::set<std::string> listed;  // names of files with a line in the manifest
  std::vector<Damage> damaged;
};

}  // namespace orvaned
