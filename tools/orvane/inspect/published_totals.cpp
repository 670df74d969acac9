#include "inspect/published_totals.hpp"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <cerrno>
#include <system_error>

#include "exit.hpp"
#include "shm/shm_names.hpp"

namespace tool {
namespace {

// Another program may have put a symbolic link or a FIFO there: do not follow it or wait for it.
Fd openTotals(const std::string& queue) {
  const std::string path = totalsPathOf(queue);
  Fd file(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (file.get() >= 0) {
    return file;
  }
  switch (errno) {
    case ENOENT:
      throw Failure(kFailed, "the server of " + queue + " publishes no totals: is it an orvaned?");
    case EACCES:
      throw Failure(kFailed, "no permission to read " + path +
                                 ": run as its owner, or start orvaned with another --mode");
    default:
      throw Failure(kFailed, "cannot open " + path + ": " + std::generic_category().message(errno));
  }
}

const Totals* mapTotals(const Fd& file, const std::string& queue) {
  struct stat status = {};
  void* memory = MAP_FAILED;
  if (fstat(file.get(), &status) == 0 && S_ISREG(status.st_mode) &&
      status.st_size >= static_cast<off_t>(offsetof(Totals, userPlusOne))) {
    memory = mmap(nullptr, sizeof(Totals), PROT_READ, MAP_SHARED, file.get(), 0);
  }
  if (memory != MAP_FAILED) {
    const auto* totals = static_cast<const Totals*>(memory);
    if (totals->magic == kTotalsMagic && totals->version == kTotalsVersion) {
      return totals;
    }
    munmap(memory, sizeof(Totals));
  }
  throw Failure(kFailed, "cannot read " + totalsPathOf(queue) +
                             ": it is half made, or of another version of orvaned");
}

}  // namespace

PublishedTotals::PublishedTotals(const std::string& queue)
    : file(openTotals(queue)), mapped(mapTotals(file, queue)) {}

PublishedTotals::~PublishedTotals() {
  munmap(const_cast<Totals*>(mapped), sizeof(Totals));
}

// If the system does not support the question, the file is a sign that the server is there: a
// server that ends in order removes it.
bool PublishedTotals::isServed() const {
  return isWorkerAlive(file.get()).value_or(true);
}

}  // namespace tool
