#pragma once

#include <cstdint>
#include <filesystem>

namespace tool {

// A private folder under TMPDIR, or /tmp; removed with all that is in it.
class TempFolder {
 public:
  // Throws Failure when it cannot be made or when `needed` bytes would not fit into it.
  explicit TempFolder(std::uint64_t needed);
  ~TempFolder();
  TempFolder(const TempFolder&) = delete;
  TempFolder& operator=(const TempFolder&) = delete;

  const std::filesystem::path& path() const { return folder; }

 private:
  std::filesystem::path folder;
};

}  // namespace tool
