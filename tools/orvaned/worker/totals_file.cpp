#include "worker/totals_file.hpp"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <new>
#include <stdexcept>
#include <system_error>

#include "shm/shm_names.hpp"

namespace orvaned {
namespace {

using tool::Totals;

constexpr mode_t kOwnersMode = 0600;
constexpr mode_t kGroupReads = 0640;
constexpr mode_t kAnyoneReads = 0444;

[[noreturn]] void fail(const std::string& path, int error) {
  throw std::runtime_error("cannot create " + path + ": " + std::generic_category().message(error));
}

std::uint64_t wallClockNow() {
  return static_cast<std::uint64_t>(
      std::chrono::nanoseconds(std::chrono::system_clock::now().time_since_epoch()).count());
}

void lock(int file) {
  struct flock wholeLife = {};
  wholeLife.l_type = F_WRLCK;
  wholeLife.l_len = 1;
  fcntl(file, F_OFD_SETLK, &wholeLife);
}

}  // namespace

TotalsFile::TotalsFile(const std::string& queueName, const Geometry& geometry,
                       std::optional<gid_t> readers, std::optional<uid_t> user)
    : path(tool::totalsPathOf(queueName)),
      file(open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, kOwnersMode)) {
  if (file.get() < 0) {
    fail(path, errno);
  }
  try {
    allocate();
  } catch (...) {
    unlink(path.c_str());
    throw;
  }
  lock(file.get());
  giveTo(readers, geometry);
  mapped->messages = geometry.messages;
  mapped->messageSize = geometry.messageSize;
  publish(*mapped, tool::kTotalsVersion, user);
}

// A file with holes would work until /dev/shm is full; then a write into it would kill the worker.
void TotalsFile::allocate() {
  if (const int error = posix_fallocate(file.get(), 0, sizeof(Totals))) {
    fail(path, error);
  }
  void* memory = mmap(nullptr, sizeof(Totals), PROT_READ | PROT_WRITE, MAP_SHARED, file.get(), 0);
  if (memory == MAP_FAILED) {
    fail(path, errno);
  }
  mapped = new (memory) Totals;
}

// If the group cannot be set here, it cannot be set for the queues, which report the error.
void TotalsFile::giveTo(std::optional<gid_t> readers, const Geometry& geometry) {
  const bool given = readers && fchown(file.get(), static_cast<uid_t>(-1), *readers) == 0;
  fchmod(file.get(), given ? kGroupReads : kOwnersMode | (geometry.mode & kAnyoneReads));
}

TotalsFile::~TotalsFile() {
  munmap(mapped, sizeof(Totals));
  if (removesName) {
    unlink(path.c_str());
  }
}

void publish(Totals& totals, std::uint64_t version, std::optional<uid_t> user) {
  totals.version = version;
  totals.server = static_cast<std::uint64_t>(getppid());
  totals.worker = static_cast<std::uint64_t>(getpid());
  totals.madeAt = wallClockNow();
  totals.madeAtMonotonic = tool::monotonicNow();
  totals.userPlusOne = user ? std::uint64_t{*user} + 1 : 0;
  totals.magic = tool::kTotalsMagic;
}

}  // namespace orvaned
