#include "marks.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <stdexcept>
#include <system_error>

#include "store_format/forward_mark.hpp"

namespace forward {
namespace {

[[noreturn]] void fail(const std::string& action, const std::string& path) {
  throw std::runtime_error(std::generic_category().message(errno) + ": cannot " + action + " " +
                           path);
}

}  // namespace

Marks::Marks(const std::string& store) : store(store) {
  const std::string path = tool::marksOf(store);
  if (mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) {
    fail("create", path);
  }
  folder = tool::Fd(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (folder.get() < 0) {
    fail("open", path);
  }
  if (flock(folder.get(), LOCK_EX | LOCK_NB) != 0) {
    throw std::runtime_error("another orvane-forward uses the store " + store);
  }
}

bool Marks::has(const std::string& id) const {
  return faccessat(folder.get(), id.c_str(), F_OK, AT_SYMLINK_NOFOLLOW) == 0;
}

// The time of the mark is when the stream was stored last, so that a mark that is there already
// gets it, too.
void Marks::add(const std::string& id) const {
  const tool::Fd mark(openat(folder.get(), id.c_str(),
                             O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600));
  if (mark.get() < 0 || futimens(mark.get(), nullptr) != 0 || fsync(mark.get()) != 0 ||
      fsync(folder.get()) != 0) {
    fail("write", tool::markOf(store, id));
  }
}

void Marks::removeStale() const {
  const std::unique_ptr<DIR, int (*)(DIR*)> names(opendir(tool::marksOf(store).c_str()), closedir);
  if (!names) {
    return;
  }
  while (const dirent* const entry = readdir(names.get())) {
    struct stat status = {};
    const std::string name = entry->d_name;
    if (!name.starts_with('.') && lstat((store + "/" + name).c_str(), &status) != 0 &&
        errno == ENOENT) {
      unlinkat(folder.get(), name.c_str(), 0);
    }
  }
}

}  // namespace forward
