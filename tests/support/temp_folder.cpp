#include "support/temp_folder.hpp"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <vector>

namespace orvane::test {

TempFolder::TempFolder()
    : folder((std::filesystem::temp_directory_path() / "orvane_test.XXXXXX").string()) {
  if (mkdtemp(folder.data()) == nullptr) {
    throw std::runtime_error("cannot make " + folder);
  }
}

TempFolder::~TempFolder() {
  std::error_code ignored;
  std::filesystem::remove_all(folder, ignored);
}

std::vector<std::string> namesIn(const std::string& folder) {
  std::vector<std::string> names;
  for (const auto& file : std::filesystem::directory_iterator(folder)) {
    names.push_back(file.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::string readFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    throw std::runtime_error("cannot read " + path);
  }
  std::string content;
  std::vector<char> block(std::size_t{1} << 16);
  do {  // in blocks: with a sanitizer, byte by byte takes minutes for a program
    file.read(block.data(), static_cast<std::streamsize>(block.size()));
    content.append(block.data(), static_cast<std::size_t>(file.gcount()));
  } while (file);
  return content;
}

void writeFile(const std::string& path, const std::string& content) {
  std::ofstream(path, std::ios::binary) << content;
}

}  // namespace orvane::test
