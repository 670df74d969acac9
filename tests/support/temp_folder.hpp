#pragma once

#include <string>
#include <vector>

namespace orvane::test {

// An empty temporary folder, removed with all that is in it.
class TempFolder {
 public:
  TempFolder();
  ~TempFolder();
  TempFolder(const TempFolder&) = delete;
  TempFolder& operator=(const TempFolder&) = delete;

  const std::string& path() const { return folder; }

 private:
  std::string folder;
};

// The names in a folder, sorted.
std::vector<std::string> namesIn(const std::string& folder);

std::string readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& content);

}  // namespace orvane::test
