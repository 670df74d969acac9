#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "shm/utc.hpp"

namespace tool {

// Returns a duration such as "45s", "30m", "2h" or "7d", or nothing for another text.
std::optional<std::chrono::seconds> durationIn(const std::string& text);

// Returns a time in UTC: "2026-11-21", which is the begin of that day, "2026-11-21T02:32" or with
// seconds or milliseconds, with or without Z; "today" or "yesterday", which are the begins of these
// days; or a duration, which is that long before `now`. Returns nothing for another text.
std::optional<UtcTime> timeIn(const std::string& text, UtcTime now);

// The error messages for other texts, and what a help text has about these.
constexpr char kNoDuration[] = "must be a duration, such as 45s, 30m, 2h or 7d";
constexpr char kNoTime[] = "must be a time, such as 2026-11-21, 2026-11-21T02:32, yesterday or 2h";
constexpr char kTimes[] =
    "A TIME is in UTC: a day, as 2026-11-21, today or yesterday, which stands for its begin; a\n"
    "day and a time, as 2026-11-21T02:32 or 2026-11-21T02:32:24; or how long ago it was, as\n"
    "45s, 30m, 2h or 7d.\n";

}  // namespace tool
