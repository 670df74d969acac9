#pragma once

#include <string>
#include <vector>

namespace tool {

// Removes streams of a store so that each is whole or gone, whenever this process is killed: hide()
// renames a stream's folder (store_format/removed_stream.hpp), finish() removes the folders.
class StreamRemoval {
 public:
  // `hidden` has the names of folders that are hidden already.
  StreamRemoval(std::string store, std::vector<std::string> hidden);

  // Returns false if a process uses the stream, if it has not ended, or if it is gone. Throws
  // std::runtime_error.
  bool hide(const std::string& id);

  // Removes all hidden folders. Returns why some could not be removed, or "".
  std::string finish();

 private:
  const std::string store;
  std::vector<std::string> hidden;
};

}  // namespace tool
