#pragma once

#include <ctime>
#include <optional>

namespace orvane::test {

// What time() answers in this executable: a given moment, or the real time.
void setClock(std::optional<std::time_t> moment);
std::time_t realTime();

}  // namespace orvane::test
