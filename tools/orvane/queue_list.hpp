#pragma once

#include <string>
#include <vector>

namespace tool {

// The queues of this machine that have a response queue beside them, sorted.
std::vector<std::string> queuesHere();

// Is it a name that a server can give a pair? Only such names are fit for a terminal.
bool mayBeQueue(const std::string& name);

// What to tell somebody who asks for a queue that is not there.
std::string noSuchQueue(const std::string& name);

}  // namespace tool
