#pragma once

#include <sys/types.h>

#include <string>

namespace tool {

// Returns the name of a user, or the number if the user has none here. Looks each number up once.
const std::string& userName(uid_t user);

}  // namespace tool
