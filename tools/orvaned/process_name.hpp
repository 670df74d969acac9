#pragma once

#include <string>

namespace orvaned {

// The time now and this process, "20261121T023224-4711". The two together never repeat, so they
// make ids that are unique within a process unique everywhere.
std::string timeAndProcess();

}  // namespace orvaned
