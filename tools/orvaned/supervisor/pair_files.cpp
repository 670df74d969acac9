#include "supervisor/pair_files.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <stdexcept>

#include "shm/shm_names.hpp"

namespace orvaned {

bool isOurs(uid_t user, std::optional<WorkerUser> worker) {
  return user == geteuid() || (worker && user == worker->user);
}

void requireOwnPair(const std::string& queueName, std::optional<WorkerUser> worker) {
  for (const std::string& path : tool::pathsOfPair(queueName)) {
    struct stat status = {};
    if (lstat(path.c_str(), &status) != 0) {
      continue;
    }
    if (!isOurs(status.st_uid, worker) || !S_ISREG(status.st_mode)) {
      throw std::runtime_error(path + " is in the way: " +
                               (S_ISREG(status.st_mode)
                                    ? "it belongs to user " + std::to_string(status.st_uid)
                                    : "it is no queue") +
                               ": remove it, or take another name");
    }
  }
}

bool pairExists(const std::string& queueName) {
  for (const std::string& path : tool::pathsOfPair(queueName)) {
    if (access(path.c_str(), F_OK) == 0) {
      return true;
    }
  }
  return false;
}

void removePair(const std::string& queueName) {
  for (const std::string& path : tool::pathsOfPair(queueName)) {
    unlink(path.c_str());
  }
}

}  // namespace orvaned
