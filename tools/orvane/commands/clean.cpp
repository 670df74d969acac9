#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <optional>
#include <set>
#include <stdexcept>
#include <string_view>
#include <system_error>

#include "commands/commands.hpp"
#include "exit.hpp"
#include "inspect/published.hpp"
#include "queue_list.hpp"
#include "shm/lock_file.hpp"
#include "shm/shm_names.hpp"
#include "shm/socket_names.hpp"

namespace tool {
namespace {

namespace fs = std::filesystem;

// The packaged service has its sockets below this folder.
constexpr char kSocketFolder[] = "/run/orvaned";
constexpr auto kSkipDenied = fs::directory_options::skip_permission_denied;

// That the files of a name are orvaned's: its lock file, or its totals, say so.
struct Proof {
  uid_t user;
  std::string server;  // its process; empty when nothing tells it any more
};

std::optional<struct stat> plainFile(const std::string& path) {
  struct stat status = {};
  return lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) ? std::optional(status)
                                                                      : std::nullopt;
}

// The process number in a lock file; empty when it holds none.
std::string holderIn(const std::string& path) {
  const Fd file(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  char text[32] = {};
  if (file.get() < 0 || read(file.get(), text, sizeof text - 1) < 0) {
    return "";
  }
  const std::size_t digits = std::strspn(text, "0123456789");
  return std::strcmp(text + digits, "\n") == 0 ? std::string(text, digits) : "";
}

bool isGone(const std::string& process) {
  return kill(std::atoi(process.c_str()), 0) != 0 && errno == ESRCH;
}

// A run's name can be nobody else's. Others' lock files may be called ".NAME.lock" too, and hold a
// number: a process of that number must not be there then, even if it is another one by now.
std::optional<Proof> proofByLock(const std::string& name) {
  const std::string path = lockPathOf(name);
  const auto file = plainFile(path);
  if (!file) {
    return std::nullopt;
  }
  const std::string holder = holderIn(path);
  const bool isOurs = isRun(name) || (!holder.empty() && isGone(holder));
  return isOurs ? std::optional(Proof{file->st_uid, holder}) : std::nullopt;
}

std::optional<Proof> proofByTotals(const std::string& queue) {
  try {
    const std::string server = std::to_string(Published(queue).server());
    const auto file = plainFile(statsPathOf(queue));
    return file ? std::optional(Proof{file->st_uid, server}) : std::nullopt;
  } catch (const Failure&) {
    return std::nullopt;
  }
}

bool isSocket(const std::string& path) {
  struct stat status = {};
  return lstat(path.c_str(), &status) == 0 && S_ISSOCK(status.st_mode);
}

// A fixed name has one pair, a run as many as it leased.
std::vector<std::string> queuesOfName(const std::string& name) {
  return isRun(name) ? queuesOf(name, namesInShm()) : std::vector<std::string>{name};
}

// Nothing when another user's is not for this one to touch.
std::optional<Proof> proofOf(const std::string& name) {
  auto proof = proofByLock(name);
  for (const std::string& queue : queuesOfName(name)) {
    proof = proof ? proof : proofByTotals(queue);
  }
  return proof && (proof->user == geteuid() || geteuid() == 0) ? proof : std::nullopt;
}

// The fixed names and runs that may have left something.
std::set<std::string> namesInUse(const std::vector<std::string>& queues) {
  std::set<std::string> names(queues.begin(), queues.end());
  if (queues.empty()) {
    for (const std::string& file : namesInShm()) {
      const auto name = lockedBy(file) ? lockedBy(file) : countedBy(file);
      names.insert(name.value_or(""));
    }
  }
  std::set<std::string> found;
  for (const std::string& name : names) {
    if (mayBeQueue(name)) {
      found.insert(runOf(name).value_or(name));
    }
  }
  return found;
}

// A socket, its server's lock, and the name under which a server that starts makes it. The lock is
// orvaned's if it says so, a process that is gone, and stands beside a socket.
std::optional<Proof> proofOfSocket(const std::string& path) {
  const std::string lock = lockPathOfSocket(path);
  const auto file = plainFile(lock);
  if (!file || !(isSocket(path) || isSocket(newPathOfSocket(path)))) {
    return std::nullopt;
  }
  const std::string holder = holderIn(lock);
  const bool isOurs = file->st_uid == geteuid() || geteuid() == 0;
  return isOurs && !holder.empty() && isGone(holder) ? std::optional(Proof{file->st_uid, holder})
                                                     : std::nullopt;
}

// At a path, or anywhere below a folder.
std::vector<std::string> socketsAt(const std::string& path) {
  if (!fs::is_directory(fs::symlink_status(path))) {
    return {path};
  }
  constexpr std::string_view kEnd = ".lock";
  std::vector<std::string> sockets;
  std::error_code error;
  for (auto entry = fs::recursive_directory_iterator(path, kSkipDenied, error);
       !error && entry != fs::recursive_directory_iterator(); entry.increment(error)) {
    const std::string file = entry->path();
    if (file.ends_with(kEnd)) {
      sockets.push_back(file.substr(0, file.size() - kEnd.size()));
    }
  }
  return sockets;
}

// As a server that starts takes it; nothing when somebody has it. A server that starts meanwhile
// waits, since the file names nobody.
std::optional<LockFile> takeLock(const std::string& name, const Proof& proof) {
  const std::string path = lockPathOf(name);
  const Fd missing(open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
  if (missing.get() >= 0 && fchown(missing.get(), proof.user, static_cast<gid_t>(-1)) != 0) {
    return std::nullopt;
  }
  return LockFile::takeOver(path, proof.user);
}

// The lock alone does not tell: its file may have been removed, and made again, since a server took
// it.
bool isServed(const std::string& queue) {
  try {
    return Published(queue).isServed();
  } catch (const Failure&) {
    return false;
  }
}

class Broom {
 public:
  explicit Broom(bool onlyTell) : dryRun(onlyTell) {}

  void clean(const std::string& name) {
    const auto proof = proofOf(name);
    if (!proof) {
      return;
    }
    const bool hadLock = plainFile(lockPathOf(name)).has_value();
    const auto lock = dryRun ? std::nullopt : takeLock(name, *proof);
    const bool isFree =
        dryRun ? LockFile::ownerOf(lockPathOf(name), proof->user) == LockFile::Owner::dead
               : lock.has_value();
    if (!isFree) {
      return;
    }
    // Looked for only now: until its end the server may have made more.
    for (const std::string& queue : queuesOfName(name)) {
      if (!isServed(queue)) {
        removePair(queue, *proof);
      }
    }
    if (hadLock) {
      tell(lockPathOf(name), *proof);  // goes with `lock`
    }
  }

  void cleanSocket(const std::string& path) {
    const auto proof = proofOfSocket(path);
    if (!proof) {
      return;
    }
    const std::string lockPath = lockPathOfSocket(path);
    const auto lock = dryRun ? std::nullopt : LockFile::takeOver(lockPath, proof->user);
    const bool isFree = dryRun ? LockFile::ownerOf(lockPath, proof->user) == LockFile::Owner::dead
                               : lock.has_value();
    if (!isFree) {
      return;
    }
    for (const std::string& file : {path, newPathOfSocket(path)}) {
      if (isSocket(file)) {
        remove(file, *proof);
      }
    }
    tell(lockPath, *proof);  // goes with `lock`
  }

  bool isIdle() const { return told == 0; }

 private:
  // A producer's own, where root gave it away; else whoever made the lock made the queues.
  void removePair(const std::string& queue, const Proof& proof) {
    for (const std::string& path : pathsOfPair(queue)) {
      const auto file = plainFile(path);
      if (!file || (file->st_uid != proof.user && proof.user != 0)) {
        continue;
      }
      remove(path, proof);
    }
  }

  void remove(const std::string& path, const Proof& proof) {
    if (!dryRun && unlink(path.c_str()) != 0) {
      throw Failure(kFailed,
                    "cannot remove " + path + ": " + std::generic_category().message(errno));
    }
    tell(path, proof);
  }

  void tell(const std::string& path, const Proof& proof) {
    ++told;
    std::printf("%s %s: its server%s is gone\n", dryRun ? "would remove" : "removed", path.c_str(),
                proof.server.empty() ? "" : (", process " + proof.server + ",").c_str());
  }

  const bool dryRun;
  std::size_t told = 0;
};

// Removes what servers that are gone left in /dev/shm, and their sockets below /run/orvaned, and
// prints what; only of these queues and sockets (a folder stands for all below it), unless there
// are none. With `dryRun`, prints what it would remove.
void cleanUp(const std::vector<std::string>& queues, const std::vector<std::string>& sockets,
             bool dryRun) {
  const bool everything = queues.empty() && sockets.empty();
  Broom broom(dryRun);
  try {
    for (const std::string& name :
         everything || !queues.empty() ? namesInUse(queues) : std::set<std::string>()) {
      broom.clean(name);
    }
    for (const std::string& path : everything ? std::vector<std::string>{kSocketFolder} : sockets) {
      for (const std::string& socket : socketsAt(path)) {
        broom.cleanSocket(socket);
      }
    }
  } catch (const std::runtime_error& e) {
    throw Failure(kFailed, e.what());
  }
  if (broom.isIdle()) {
    std::puts("nothing to remove: no server that is gone left anything");
  }
}

void cleanNamed(const std::vector<std::string>& names, bool dryRun) {
  std::vector<std::string> queues;
  std::vector<std::string> sockets;
  for (const std::string& name : names) {
    if (name.find('/') != std::string::npos) {
      sockets.push_back(name);
    } else {
      requireQueueName(name);
      queues.push_back(name);
    }
  }
  cleanUp(queues, sockets, dryRun);
}

}  // namespace

Command addClean(CLI::App& app) {
  CLI::App* clean = app.add_subcommand(
      "clean", "Remove what servers that are gone left in /dev/shm and /run/orvaned");
  const auto names = std::make_shared<std::vector<std::string>>();
  const auto dryRun = std::make_shared<bool>(false);
  clean->set_version_flag("--version", kVersion);
  clean
      ->add_option("NAME", *names,
                   "Only of these queues, with a leased one of all that its server leased; with a "
                   "slash in it: of the server whose socket it is, or of all below this folder")
      ->type_name("");
  clean->add_flag("--dry-run", *dryRun, "Only tell what would be removed");
  clean->footer(
      std::string("A server that starts does the same for its own queue and for leases. "
                  "Root cleans up after\neverybody's servers, others after their own.\n") +
      kExitCodes);
  return {clean, [names, dryRun] { cleanNamed(*names, *dryRun); }};
}

}  // namespace tool
