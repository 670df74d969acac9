#pragma once

#include <set>
#include <string>

namespace orvane::test {

// The system calls that a unit's SystemCallFilter= lines allow.
std::set<std::string> callsAllowedBy(const std::string& unit);

// For a child process: from now on all other calls fail with EPERM, as in the service.
void allowOnly(const std::set<std::string>& calls);

}  // namespace orvane::test
