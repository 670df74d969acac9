#include "supervisor/notice.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <orvane/orvane.hpp>
#include <orvane/server_status.hpp>
#include <queue/message_queue.hpp>
#include <stdexcept>
#include <utility>

#include "shm/fd.hpp"
#include "shm/shm_names.hpp"
#include "supervisor/pair_files.hpp"
#include "worker/confinement.hpp"
#include "worker/guarded_buffer.hpp"

namespace orvaned {
namespace {

namespace ipc = boost::interprocess;
using orvane::pvk_shm_response_t;

constexpr unsigned kErrorPriority = 1;

// The queue's file, opened without reading it (O_PATH). Nothing if it belongs to another user.
tool::Fd locate(const std::string& path, std::optional<uid_t> producersUser,
                std::optional<WorkerUser> worker) {
  tool::Fd file(open(path.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
  struct stat status = {};
  const bool isFile = file.get() >= 0 && fstat(file.get(), &status) == 0 && S_ISREG(status.st_mode);
  const bool isTrusted = isOurs(status.st_uid, worker) || status.st_uid == producersUser;
  return isFile && isTrusted ? std::move(file) : tool::Fd();
}

// A process that has given up its rights can only open files of its user.
void giveToWorker(const tool::Fd& file, std::optional<WorkerUser> worker) {
  const WorkerUser user = worker.value_or(WorkerUser{geteuid(), getegid()});
  [[maybe_unused]] const int ignored =  // opening the queue fails then
      fchownat(file.get(), "", user.user, user.group, AT_EMPTY_PATH);
}

void post(ipc::message_queue& queue, const std::string& reason) {
  pvk_shm_response_t notice;
  notice.assign(orvane::kWorkerDied, reason.c_str());
  if (queue.try_send(&notice, sizeof(notice), kErrorPriority)) {
    return;
  }
  // The queue is full of unread responses: the first one is removed.
  const GuardedBuffer oldest(sizeof(notice));
  ipc::message_queue::size_type size = 0;
  unsigned priority = 0;
  queue.try_receive(oldest.data(), oldest.size(), size, priority);
  queue.try_send(&notice, sizeof(notice), kErrorPriority);
}

}  // namespace

void postNotice(const std::string& queueName, const std::string& reason,
                std::optional<uid_t> producersUser, const Confinement& confinement, pid_t parent,
                std::atomic<int>* refusedCall) {
  const std::string name = orvane::getMessageQueueResponseName(queueName);
  const tool::Fd file = locate(tool::kShmFolder + name, producersUser, confinement.user);
  if (file.get() < 0) {
    return;
  }
  giveToWorker(file, confinement.user);
  dropRights(confinement, parent, file.get());
  restrictCalls(confinement, refusedCall, true);
  try {
    ipc::message_queue queue(ipc::open_only, name.c_str());
    restrictCalls(confinement, refusedCall);
    post(queue, reason);
  } catch (const ipc::interprocess_exception&) {
    // There is no queue, it is incomplete, or its lock is dead: no notice can be posted.
  }
}

}  // namespace orvaned
