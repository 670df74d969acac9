#pragma once

#include <optional>
#include <string>
#include <vector>

namespace tool {

// Returns the path of the store that a command reads: the one that is named, else that of the
// environment's ORVANE_STORE, else the only folder in /var/lib/orvaned. Throws Failure (kUsage) if
// that has none or several; the message lists them.
std::string storeNamed(const std::optional<std::string>& named);

// Returns the only folder in a folder; throws as above.
std::string onlyStoreIn(const std::string& parent);

// The help of STORE, as the option --store and as an argument.
constexpr char kStoreHelp[] =
    "The folder in which orvaned stores streams; by default that of\n"
    "ORVANE_STORE, or the only one in /var/lib/orvaned";

// Returns the names of the folders in a store, in any order. Hidden ones are left out, because a
// stream's folder is hidden until it is locked. Throws Failure if the store cannot be read.
std::vector<std::string> foldersIn(const std::string& store);

// Returns the path of a stream's folder.
std::string folderOf(const std::string& store, const std::string& id);

// Does the folder hold a stream, which may be open?
bool isStreamFolder(const std::string& path);

// Returns the name of a stream's folder, which is the stream's id.
std::string idOf(const std::string& folder);

// Returns the error message for a folder that holds none.
std::string noStreamIn(const std::string& folder);

}  // namespace tool
