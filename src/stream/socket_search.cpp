#include "stream/socket_search.hpp"

#include <algorithm>
#include <filesystem>
#include <system_error>
#include <vector>

#include "orvane/status.hpp"
#include "records/failure.hpp"

namespace orvane {

namespace {

namespace fs = std::filesystem;

// What cannot be read has no socket that this process could use.
std::vector<std::string> socketsIn(const std::string& folder) {
  std::vector<std::string> sockets;
  std::error_code error;
  for (fs::directory_iterator entry(folder, error); !error && entry != fs::directory_iterator();
       entry.increment(error)) {
    std::error_code unreadable;
    const fs::path socket = entry->path() / "socket";
    if (fs::is_socket(socket, unreadable)) {
      sockets.push_back(socket);
    }
  }
  std::sort(sockets.begin(), sockets.end());
  return sockets;
}

}  // namespace

std::string onlySocketIn(const std::string& folder) {
  const std::vector<std::string> sockets = socketsIn(folder);
  if (sockets.empty()) {
    fail(kLeaseNoServer, "No socket is given, and there is none at ", folder,
         "/*/socket: is the server running?");
  }
  if (sockets.size() > 1) {
    std::string list;
    for (const std::string& socket : sockets) {
      list += (list.empty() ? "" : ", ") + socket;
    }
    fail(kLeaseNoServer, "No socket is given, and there are several; choose one of them: ", list);
  }
  return sockets.front();
}

}  // namespace orvane
