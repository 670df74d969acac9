#include "worker/ring_totals_file.hpp"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <new>
#include <system_error>

#include "worker/totals_file.hpp"

namespace orvaned {
namespace {

using tool::RingTotals;

constexpr int kSeals = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_FUTURE_WRITE | F_SEAL_SEAL;

[[noreturn]] void fail() {
  throw std::system_error(errno, std::generic_category(), "cannot publish the totals of a ring");
}

}  // namespace

tool::Fd RingTotalsFile::newFile() {
  tool::Fd file(memfd_create("orvane-totals", MFD_CLOEXEC | MFD_ALLOW_SEALING));
  if (file.get() < 0 || ftruncate(file.get(), sizeof(RingTotals)) != 0) {
    fail();
  }
  return file;
}

bool RingTotalsFile::isSealed(int file) {
  return (fcntl(file, F_GET_SEALS) & kSeals) == kSeals;
}

// All the memory is there before it is used: to write where there is none would kill the worker.
RingTotalsFile::RingTotalsFile(const tool::Fd& file, std::uint64_t ringBytes, uid_t user) {
  if (posix_fallocate(file.get(), 0, sizeof(RingTotals)) != 0) {
    fail();
  }
  void* const memory =
      mmap(nullptr, sizeof(RingTotals), PROT_READ | PROT_WRITE, MAP_SHARED, file.get(), 0);
  if (memory == MAP_FAILED || fcntl(file.get(), F_ADD_SEALS, kSeals) != 0) {
    fail();
  }
  mapped = new (memory) RingTotals;
  mapped->bytes = ringBytes;
  publish(mapped->totals, tool::kRingTotalsVersion, user);
}

RingTotalsFile::~RingTotalsFile() {
  munmap(mapped, sizeof(RingTotals));
}

}  // namespace orvaned
