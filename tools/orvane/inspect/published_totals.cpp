#include "inspect/published_totals.hpp"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <cerrno>
#include <system_error>
#include <utility>

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

// Maps a ring's totals too, which begin as those of a queue and are longer.
const Totals* mapTotals(const Fd& file, const std::string& what) {
  struct stat status = {};
  void* memory = MAP_FAILED;
  if (fstat(file.get(), &status) == 0 && S_ISREG(status.st_mode) &&
      status.st_size >= static_cast<off_t>(offsetof(Totals, userPlusOne))) {
    memory = mmap(nullptr, sizeof(RingTotals), PROT_READ, MAP_SHARED, file.get(), 0);
  }
  if (memory != MAP_FAILED) {
    const auto* totals = static_cast<const Totals*>(memory);
    const bool isRing = totals->version == kRingTotalsVersion &&
                        status.st_size >= static_cast<off_t>(sizeof(RingTotals));
    if (totals->magic == kTotalsMagic && (isRing || totals->version == kTotalsVersion)) {
      return totals;
    }
    munmap(memory, sizeof(RingTotals));
  }
  throw Failure(kFailed,
                "cannot read " + what + ": it is half made, or of another version of orvaned");
}

}  // namespace

PublishedTotals::PublishedTotals(const std::string& queue)
    : queueOrRing(queue), file(openTotals(queue)), mapped(mapTotals(file, totalsPathOf(queue))) {}

PublishedTotals::PublishedTotals(ServedRing ring)
    : queueOrRing(std::move(ring.name)),
      file(std::move(ring.totals)),
      mapped(mapTotals(file, "the totals of " + queueOrRing)) {}

PublishedTotals::~PublishedTotals() {
  munmap(const_cast<Totals*>(mapped), sizeof(RingTotals));
}

const RingTotals* PublishedTotals::ring() const {
  return mapped->version == kRingTotalsVersion ? reinterpret_cast<const RingTotals*>(mapped)
                                               : nullptr;
}

// If the system does not support the question, the file is a sign that the server is there: a
// server that ends in order removes it.
bool PublishedTotals::isServed() const {
  return ring() != nullptr || isWorkerAlive(file.get()).value_or(true);
}

}  // namespace tool
