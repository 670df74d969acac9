#pragma once

#include <string>
#include <vector>

#include "stream.hpp"

namespace tool {

// Stores each file as a stream of the server behind `queueName`; "-" is standard input. Prints one
// line of summary. Throws Failure, Interrupted.
void sendFiles(const std::string& queueName, const std::vector<std::string>& paths,
               const SendOptions& options);

}  // namespace tool
