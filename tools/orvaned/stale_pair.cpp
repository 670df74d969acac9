#include "stale_pair.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <orvane/orvane.hpp>
#include <queue/message_queue.hpp>
#include <stdexcept>
#include <utility>

#include "common/shm_names.hpp"
#include "fd.hpp"
#include "server_status.hpp"
#include "worker/guarded_buffer.hpp"

namespace orvaned {
namespace {

namespace ipc = boost::interprocess;
using orvane::pvk_shm_response_t;

constexpr unsigned kErrorPriority = 1;

bool isOurs(uid_t user, std::optional<WorkerUser> worker) {
  return user == geteuid() || (worker && user == worker->user);
}

// The queue's file, as a place (O_PATH): nothing of it is read yet. None when it is a stranger's.
Fd locate(const std::string& path, std::optional<uid_t> producersUser,
          std::optional<WorkerUser> worker) {
  Fd file(open(path.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
  struct stat status = {};
  const bool isFile = file.get() >= 0 && fstat(file.get(), &status) == 0 && S_ISREG(status.st_mode);
  const bool isTrusted = isOurs(status.st_uid, worker) || status.st_uid == producersUser;
  return isFile && isTrusted ? std::move(file) : Fd();
}

// A process that has given up its rights opens only what is its user's own.
void take(const Fd& file, std::optional<WorkerUser> worker) {
  const WorkerUser user = worker.value_or(WorkerUser{geteuid(), getegid()});
  [[maybe_unused]] const int ignored =  // then opening it tells
      fchownat(file.get(), "", user.user, user.group, AT_EMPTY_PATH);
}

void post(ipc::message_queue& queue, const std::string& reason) {
  pvk_shm_response_t notice;
  notice.assign(kWorkerDied, reason.c_str());
  if (queue.try_send(&notice, sizeof(notice), kErrorPriority)) {
    return;
  }
  // One answer that nobody took gives way.
  const GuardedBuffer oldest(sizeof(notice));
  ipc::message_queue::size_type size = 0;
  unsigned priority = 0;
  queue.try_receive(oldest.data(), oldest.size(), size, priority);
  queue.try_send(&notice, sizeof(notice), kErrorPriority);
}

}  // namespace

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

void postNotice(const std::string& queueName, const std::string& reason,
                std::optional<uid_t> producersUser, const Confinement& confinement, pid_t parent,
                std::atomic<int>* refusedCall) {
  const std::string name = orvane::getMessageQueueResponseName(queueName);
  const Fd file = locate(tool::kShmFolder + name, producersUser, confinement.user);
  if (file.get() < 0) {
    return;
  }
  take(file, confinement.user);
  dropRights(confinement, parent, file.get());
  restrictCalls(confinement, refusedCall, true);
  try {
    ipc::message_queue queue(ipc::open_only, name.c_str());
    restrictCalls(confinement, refusedCall);
    post(queue, reason);
  } catch (const ipc::interprocess_exception&) {
    // There is none, it is half made, or its lock is dead: nobody can be told.
  }
}

}  // namespace orvaned
