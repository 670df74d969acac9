#include "store/segment_finish.hpp"

#include <unistd.h>

#include <cerrno>
#include <exception>

#include "store/manifest_file.hpp"

namespace orvaned {
namespace {

void syncFile(StreamDirectory& folder, const std::string& name) {
  const tool::Fd file = folder.read(name);
  if (::fdatasync(file.get()) != 0) {
    throwStoreFailed(errno, "sync", folder.pathOf(name));
  }
}

}  // namespace

FinishResult finishSegment(StreamDirectory& folder, const std::string& finalName,
                           const std::string& line) {
  FinishResult result;
  try {
    syncFile(folder, finalName + kUnfinished);
    folder.read(std::string(kManifest) + kUnfinished);  // a manifest that was removed stays removed
    ManifestFile manifest(&folder, Sync::segment);
    manifest.add(line);
    manifest.flush();
    result.listed = true;
    manifest.settle();
    folder.rename(finalName + kUnfinished, finalName);
    folder.sync();
  } catch (const std::exception& e) {
    result.error = e.what();
  }
  return result;
}

}  // namespace orvaned
