#include "unit_filter.hpp"

#include <seccomp.h>

#include <cerrno>
#include <map>
#include <sstream>
#include <stdexcept>

#include "support/temp_folder.hpp"

namespace orvane::test {
namespace {

using Calls = std::set<std::string>;

// A group's name at the begin of a line, its calls on the lines below it.
std::map<std::string, Calls> groups() {
  std::map<std::string, Calls> found;
  std::string name;
  std::istringstream lines(readFile(SYSTEM_CALL_GROUPS_PATH));
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with("@")) {
      name = line;
    } else if (line.starts_with("  ")) {
      std::istringstream calls(line);
      for (std::string call; calls >> call;) {
        found[name].insert(call);
      }
    }
  }
  return found;
}

}  // namespace

Calls callsAllowedBy(const std::string& unit) {
  const std::map<std::string, Calls> known = groups();
  const std::string key = "SystemCallFilter=";
  Calls allowed;
  std::istringstream lines(unit);
  for (std::string line; std::getline(lines, line);) {
    if (!line.starts_with(key)) {
      continue;
    }
    const bool removes = line.starts_with(key + "~");
    std::istringstream names(line.substr(key.size() + (removes ? 1 : 0)));
    for (std::string name; names >> name;) {
      for (const std::string& call : name.starts_with("@") ? known.at(name) : Calls{name}) {
        removes ? void(allowed.erase(call)) : void(allowed.insert(call));
      }
    }
  }
  return allowed;
}

void allowOnly(const Calls& calls) {
  scmp_filter_ctx filter = seccomp_init(SCMP_ACT_ERRNO(EPERM));
  for (const std::string& call : calls) {
    const int number = seccomp_syscall_resolve_name(call.c_str());
    if (number >= 0 && seccomp_rule_add(filter, SCMP_ACT_ALLOW, number, 0) != 0) {
      throw std::runtime_error("seccomp_rule_add " + call);
    }
  }
  if (seccomp_load(filter) != 0) {
    throw std::runtime_error("seccomp_load");
  }
  seccomp_release(filter);
}

}  // namespace orvane::test
