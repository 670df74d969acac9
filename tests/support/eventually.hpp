#pragma once

#include <functional>

// What other processes do takes its time; a test waits for it, and for no longer than this.
namespace orvane::test {

constexpr int kTimeoutMilliseconds = 60000;

// Looks until it is so; false when that takes too long.
bool eventually(const std::function<bool()>& condition);

}  // namespace orvane::test
