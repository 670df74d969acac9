#pragma once

#include <chrono>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>

namespace tool {

// Times in UTC, in the three forms that the server and the command write.
std::string utcText(std::time_t time);           // "2026-11-21T02:32:24Z"
std::string utcText(const std::timespec& time);  // "2026-11-21T02:32:24.123Z"
std::string utcTextForNames(std::time_t time);   // "20261121T023224"

// A time that a stream's manifest keeps.
using UtcTime = std::chrono::sys_time<std::chrono::milliseconds>;
UtcTime utcNow();

// The same forms for a year of four digits. A confined process can use these: gmtime() would read
// the system's time zone.
std::string utcText(UtcTime time);          // "2026-11-21T02:32:24.123Z"
std::string utcTextForNames(UtcTime time);  // "20261121T023224"

// Returns nothing unless the text is exactly what utcText() writes for some time.
std::optional<UtcTime> parseUtc(std::string_view text);

// Returns the time now and this process, "20261121T023224-4711". The two together never repeat, so
// they make ids that are unique within a process unique everywhere.
std::string timeAndProcess();

}  // namespace tool
