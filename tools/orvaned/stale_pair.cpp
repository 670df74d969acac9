#include "stale_pair.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <orvane/orvane.hpp>
#include <queue/message_queue.hpp>
#include <stdexcept>

#include "common/shm_names.hpp"
#include "server_status.hpp"

namespace orvaned {
namespace {

namespace ipc = boost::interprocess;
using orvane::pvk_shm_response_t;

constexpr unsigned kErrorPriority = 1;

}  // namespace

void requireOwnPair(const std::string& queueName) {
  for (const std::string& path : tool::pathsOfPair(queueName)) {
    struct stat status = {};
    if (lstat(path.c_str(), &status) != 0) {
      continue;
    }
    if (status.st_uid != geteuid() || !S_ISREG(status.st_mode)) {
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

void postFarewell(const std::string& queueName, const std::string& reason) {
  pvk_shm_response_t farewell;
  farewell.assign(kWorkerDied, reason.c_str());
  const std::string name = orvane::getMessageQueueResponseName(queueName);
  try {
    ipc::message_queue queue(ipc::open_only, name.c_str());
    if (!queue.try_send(&farewell, sizeof(farewell), kErrorPriority)) {
      // One answer that nobody took gives way.
      pvk_shm_response_t oldest;
      ipc::message_queue::size_type size = 0;
      unsigned priority = 0;
      queue.try_receive(&oldest, sizeof(oldest), size, priority);
      queue.try_send(&farewell, sizeof(farewell), kErrorPriority);
    }
  } catch (const ipc::interprocess_exception&) {
    // There is none, it is half made, or its lock is dead: nobody can be told.
  }
}

}  // namespace orvaned
