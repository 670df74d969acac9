#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "store_format/manifest.hpp"
#include "store_format/manifest_reader.hpp"

namespace tool {

// A file of a stream and its fault.
struct FileFault {
  std::string file;
  std::string fault;

  bool operator==(const FileFault&) const = default;
};

// What a check of a stream has found.
struct StreamReport {
  std::string folder;
  std::string id;          // its name
  bool isRemoved = false;  // since the check began; the rest tells nothing then
  bool isOpen = false;     // a server is storing it, so it was not checked
  int format = 0;          // the manifest's; 0: it could not be read
  std::optional<orvane::Receipt> receipt = {};
  std::uint64_t files = 0;  // that were compared with the manifest
  std::vector<FileFault> faults = {};
};

// Compares the folder of a stored stream with its manifest. The constructor checks the manifest
// and finds the files that are missing or not listed; compare() reads the others, one at a time.
//
// A manifest that is not as a server wrote it is reported alone: what it says of the files cannot
// be relied on. In format 1, which has no checksum of its lines, only a change that contradicts
// another line, the folder's name or a file can be found.
class StreamCheck {
 public:
  // `folder` is absolute or relative to the current folder. Throws only what the standard library
  // throws when there is no memory.
  explicit StreamCheck(const std::string& folder);

  // How many files compare() can be called for.
  std::size_t files() const { return listed.size(); }

  // Compares a file with its line, and returns the difference or "". Reads into `block`, and calls
  // `afterRead` as contentOf() does. Several threads may call this at the same time.
  std::string compare(std::size_t number, std::span<unsigned char> block,
                      const std::function<void(std::size_t)>& afterRead) const;

  // Keeps what compare() has returned for a file.
  void keep(std::size_t number, const std::string& fault);

  // To be called when each file was compared.
  StreamReport report();

 private:
  void check();
  void checkManifest(std::set<std::string> names);
  std::string contradictionIn(const Manifest& manifest) const;
  void list(const Manifest& manifest, std::set<std::string>& names);
  void find(std::string file, std::string fault);

  StreamReport found;
  std::vector<ListedFile> listed;
  std::map<std::size_t, std::string> faults;  // of these
};

}  // namespace tool
