#pragma once

#include <string>

namespace tool {

// Before a stream is removed, its folder gets a hidden name, so that a process that is killed while
// it removes the files has left the whole stream or none of it. The next `orvane prune` and the
// next server with this store remove what is left under such a name.
std::string removedFolderOf(const std::string& id);
bool isRemovedFolder(const std::string& name);

// Removes a folder and everything in it; several processes may do so at the same time. Throws
// std::runtime_error.
void removeFolder(const std::string& path);

}  // namespace tool
