#pragma once

#include <ctime>
#include <string>

namespace tool {

// Times in UTC, in the three forms that the server and the command write.
std::string utcText(std::time_t time);           // "2026-11-21T02:32:24Z"
std::string utcText(const std::timespec& time);  // "2026-11-21T02:32:24.123Z"
std::string utcTextForNames(std::time_t time);   // "20261121T023224"

// Returns the time now and this process, "20261121T023224-4711". The two together never repeat, so
// they make ids that are unique within a process unique everywhere.
std::string timeAndProcess();

}  // namespace tool
