#include "user_name.hpp"

#include <pwd.h>

#include <map>

namespace tool {

const std::string& userName(uid_t user) {
  static std::map<uid_t, std::string> names;
  const auto [known, isNew] = names.try_emplace(user);
  if (isNew) {
    const passwd* const entry = getpwuid(user);
    known->second = entry != nullptr ? entry->pw_name : std::to_string(user);
  }
  return known->second;
}

}  // namespace tool
