#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "ox/status.hpp"

namespace orvane::test {

// Success when `call` throws an Ox_ErrnoException with exactly this status and message and an empty
// detail text:
//   EXPECT_TRUE(throwsErrno(9, "the whole message", [&] { batch.pushBack(entry); }));
testing::AssertionResult throwsErrno(ox_status_t status, const std::string& message,
                                     const std::function<void()>& call);

}  // namespace orvane::test
