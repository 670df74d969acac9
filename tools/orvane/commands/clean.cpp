#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string_view>
#include <system_error>

#include "commands/commands.hpp"
#include "exit.hpp"
#include "inspect/published_totals.hpp"
#include "json.hpp"
#include "queue_list.hpp"
#include "shm/lock_file.hpp"
#include "shm/shm_names.hpp"

namespace tool {
namespace {

namespace fs = std::filesystem;

// The packaged service has its sockets below this folder.
constexpr char kSocketFolder[] = "/run/orvaned";
constexpr auto kSkipDenied = fs::directory_options::skip_permission_denied;

// The server that made the files of a name, as its lock file or its totals show.
struct Server {
  uid_t user;
  std::string process;  // empty when it is not known
};

std::optional<struct stat> plainFile(const std::string& path) {
  struct stat status = {};
  return lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) ? std::optional(status)
                                                                      : std::nullopt;
}

// Returns the process number in a lock file, or "" if it holds none.
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

// Only orvaned uses the name of a run. Another program may also have a file ".NAME.lock" that holds
// a number, so no process of that number may be there: not even a later one that has it again.
std::optional<Server> serverByLock(const std::string& name) {
  const std::string path = lockPathOf(name);
  const auto file = plainFile(path);
  if (!file) {
    return std::nullopt;
  }
  const std::string holder = holderIn(path);
  const bool isOurs = isRun(name) || (!holder.empty() && isGone(holder));
  return isOurs ? std::optional(Server{file->st_uid, holder}) : std::nullopt;
}

std::optional<Server> serverByTotals(const std::string& queue) {
  try {
    const std::string process = std::to_string(PublishedTotals(queue).server());
    const auto file = plainFile(totalsPathOf(queue));
    return file ? std::optional(Server{file->st_uid, process}) : std::nullopt;
  } catch (const Failure&) {
    return std::nullopt;
  }
}

bool isSocket(const std::string& path) {
  struct stat status = {};
  return lstat(path.c_str(), &status) == 0 && S_ISSOCK(status.st_mode);
}

// A fixed name has one pair; a run has all pairs that it leased.
std::vector<std::string> queuesOfName(const std::string& name) {
  return isRun(name) ? queuesOf(name, namesInShm()) : std::vector<std::string>{name};
}

// Returns nothing also if the server was another user's, unless root asks.
std::optional<Server> serverOf(const std::string& name) {
  auto server = serverByLock(name);
  for (const std::string& queue : queuesOfName(name)) {
    server = server ? server : serverByTotals(queue);
  }
  return server && (server->user == geteuid() || geteuid() == 0) ? server : std::nullopt;
}

// Returns the fixed names and the runs that may have left files.
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

// The lock file is orvaned's if it holds the number of a process that is gone, and the socket is
// there under its own name or under the name that it has while a server starts.
std::optional<Server> serverOfSocket(const std::string& path) {
  const std::string lock = lockPathOfSocket(path);
  const auto file = plainFile(lock);
  if (!file || !(isSocket(path) || isSocket(newPathOfSocket(path)))) {
    return std::nullopt;
  }
  const std::string holder = holderIn(lock);
  const bool isOurs = file->st_uid == geteuid() || geteuid() == 0;
  return isOurs && !holder.empty() && isGone(holder) ? std::optional(Server{file->st_uid, holder})
                                                     : std::nullopt;
}

// Returns the path itself or, if it is a folder, the paths of all sockets below it.
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

// Locks the name as a server that starts does; returns nothing if a process holds the lock. The
// file then holds no process number, so a server that starts meanwhile waits.
std::optional<LockFile> lockName(const std::string& name, const Server& server) {
  const std::string path = lockPathOf(name);
  const Fd missing(open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
  if (missing.get() >= 0 && fchown(missing.get(), server.user, static_cast<gid_t>(-1)) != 0) {
    return std::nullopt;
  }
  return LockFile::takeOver(path, server.user);
}

// A free lock is not enough: its file may have been removed and created again while a server held
// the lock.
bool isServed(const std::string& queue) {
  try {
    return PublishedTotals(queue).isServed();
  } catch (const Failure&) {
    return false;
  }
}

struct CleanOptions {
  bool dryRun = false;
  bool json = false;
};

// Removes the files of dead servers and prints the path of each; in a dry run it only prints.
class Cleaner {
 public:
  explicit Cleaner(const CleanOptions& options) : dryRun(options.dryRun), json(options.json) {}

  void clean(const std::string& name) {
    const auto server = serverOf(name);
    if (!server) {
      return;
    }
    const bool hadLock = plainFile(lockPathOf(name)).has_value();
    const auto lock = dryRun ? std::nullopt : lockName(name, *server);
    const bool isFree =
        dryRun ? LockFile::ownerOf(lockPathOf(name), server->user) == LockFile::OwnerState::dead
               : lock.has_value();
    if (!isFree) {
      return;
    }
    // Not listed before the lock: until its end the server may have created more.
    for (const std::string& queue : queuesOfName(name)) {
      if (!isServed(queue)) {
        removePair(queue, *server);
      }
    }
    if (hadLock) {
      report(lockPathOf(name), *server);  // `lock` removes the file
    }
  }

  void cleanSocket(const std::string& path) {
    const auto server = serverOfSocket(path);
    if (!server) {
      return;
    }
    const std::string lockPath = lockPathOfSocket(path);
    const auto lock = dryRun ? std::nullopt : LockFile::takeOver(lockPath, server->user);
    const bool isFree =
        dryRun ? LockFile::ownerOf(lockPath, server->user) == LockFile::OwnerState::dead
               : lock.has_value();
    if (!isFree) {
      return;
    }
    for (const std::string& file : {path, newPathOfSocket(path)}) {
      if (isSocket(file)) {
        remove(file, *server);
      }
    }
    report(lockPath, *server);  // `lock` removes the file
  }

  bool foundNothing() const { return reported == 0; }

 private:
  // The queues belong to the server's user or, if that is root, maybe to a producer's user, to whom
  // root gave them.
  void removePair(const std::string& queue, const Server& server) {
    for (const std::string& path : pathsOfPair(queue)) {
      const auto file = plainFile(path);
      if (!file || (file->st_uid != server.user && server.user != 0)) {
        continue;
      }
      remove(path, server);
    }
  }

  void remove(const std::string& path, const Server& server) {
    if (!dryRun && unlink(path.c_str()) != 0) {
      throw Failure(kFailed,
                    "cannot remove " + path + ": " + std::generic_category().message(errno));
    }
    report(path, server);
  }

  void report(const std::string& path, const Server& server) {
    ++reported;
    if (json) {
      const bool isKnown = !server.process.empty();
      printLine({{"path", path},
                 {"removed", !dryRun},
                 {"server", isKnown ? Json(std::atoi(server.process.c_str())) : Json()}});
      return;
    }
    std::printf("%s %s: its server%s is gone\n", dryRun ? "would remove" : "removed", path.c_str(),
                server.process.empty() ? "" : (", process " + server.process + ",").c_str());
  }

  const bool dryRun;
  const bool json;
  std::size_t reported = 0;
};

// Cleans up after dead servers: only these queues and sockets or, if there are none, all in
// /dev/shm and below /run/orvaned. A folder among the sockets stands for all sockets below it.
void cleanUp(const std::vector<std::string>& queues, const std::vector<std::string>& sockets,
             const CleanOptions& options) {
  const bool everything = queues.empty() && sockets.empty();
  Cleaner cleaner(options);
  for (const std::string& name :
       everything || !queues.empty() ? namesInUse(queues) : std::set<std::string>()) {
    cleaner.clean(name);
  }
  for (const std::string& path : everything ? std::vector<std::string>{kSocketFolder} : sockets) {
    for (const std::string& socket : socketsAt(path)) {
      cleaner.cleanSocket(socket);
    }
  }
  if (cleaner.foundNothing() && !options.json) {
    std::puts("nothing to remove: no server that is gone left anything");
  }
}

void cleanNamed(const std::vector<std::string>& names, const CleanOptions& options) {
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
  cleanUp(queues, sockets, options);
}

}  // namespace

Command addClean(CLI::App& app) {
  CLI::App* clean = app.add_subcommand(
      "clean", "Remove the files that dead servers left in /dev/shm and /run/orvaned");
  const auto names = std::make_shared<std::vector<std::string>>();
  const auto options = std::make_shared<CleanOptions>();
  clean->set_version_flag("--version", kVersion);
  clean
      ->add_option("NAME", *names,
                   "Clean up only after the server of this queue or, if NAME has a\n"
                   "slash, of this socket, or of all sockets below this folder.\n"
                   "A leased queue stands for all queues that its server leased.\n"
                   "Without NAME: clean up after all servers")
      ->type_name("");
  clean->add_flag("-n,--dry-run", options->dryRun, "Only print what would be removed");
  clean->add_flag("-j,--json", options->json, kJson);
  clean->footer(
      std::string("A server that starts does the same for its own queue and for leases.\n"
                  "Root cleans up after the servers of all users, other users clean up only "
                  "after their own.\n") +
      kExitCodes);
  return {clean, [names, options] { cleanNamed(*names, *options); }};
}

}  // namespace tool
