#include "worker/worker_user.hpp"

#include <pwd.h>
#include <unistd.h>

#include <stdexcept>

namespace orvaned {
namespace {

constexpr char kDefaultUser[] = "orvaned";
constexpr WorkerUser kNobody = {65534, 65534};
constexpr uid_t kRoot = 0;

[[noreturn]] void refuse(const std::string& name, const char* reason) {
  throw std::invalid_argument("--worker-user " + name + ": " + reason);
}

}  // namespace

WorkerUserChoice chooseWorkerUser(const std::string& name) {
  const passwd* entry = getpwnam(name.empty() ? kDefaultUser : name.c_str());
  if (geteuid() != kRoot) {
    if (!name.empty() && (entry == nullptr || entry->pw_uid != geteuid())) {
      refuse(name, "only a server that runs as root can run its workers as another user");
    }
    return {};
  }
  if (entry == nullptr) {
    if (!name.empty()) {
      refuse(name, "there is no such user");
    }
    return {kNobody,
            "there is no user orvaned: workers run as user 65534 (--worker-user names another)"};
  }
  if (entry->pw_uid == kRoot) {
    return {};
  }
  return {WorkerUser{entry->pw_uid, entry->pw_gid}, ""};
}

}  // namespace orvaned
