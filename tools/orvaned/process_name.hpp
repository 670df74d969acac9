#pragma once

#include <string>

namespace orvaned {

// The time now and this process, "20261121T023224-4711": the two together do not come again, so
// that ids which are unique within a process become unique at all.
std::string timeAndProcess();

}  // namespace orvaned
