#pragma once

#include <optional>
#include <string>
#include <vector>

#include "stream.hpp"

namespace tool {

// Where to send: to a queue known by its name, or to one that is leased at a socket.
struct Destination {
  std::string queue;
  std::optional<std::string> socket;
};

// Stores each file as a stream; "-" is standard input. Prints one line of summary. Throws Failure,
// Interrupted.
void sendFiles(const Destination& destination, const std::vector<std::string>& paths,
               const SendOptions& options);

}  // namespace tool
