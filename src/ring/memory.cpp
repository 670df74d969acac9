#include "ring/memory.hpp"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

#include "orvane/status.hpp"
#include "records/failure.hpp"
#include "ring/fork_count.hpp"

namespace orvane::ring {

namespace {

// Linux 6.3 and later have it; the headers of Debian 12 do not.
#ifdef MFD_NOEXEC_SEAL
constexpr unsigned kNeverExecutable = MFD_NOEXEC_SEAL;
#else
constexpr unsigned kNeverExecutable = 0x0008U;
#endif

constexpr int kSizeSeals = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL;

[[noreturn]] void failWithErrno(const char* what, int error) {
  fail(kLeaseLost, "Cannot ", what, " a ring's memory: ", std::generic_category().message(error));
}

// Address space in which nothing is.
unsigned char* reservedSpace(std::size_t size) {
  void* const reserved =
      mmap(nullptr, size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (reserved == MAP_FAILED) {
    failWithErrno("reserve", errno);
  }
  return static_cast<unsigned char*>(reserved);
}

}  // namespace

File::~File() {
  if (fd >= 0) {
    close(fd);
  }
}

File::File(File&& other) noexcept : fd(std::exchange(other.fd, -1)) {}

File& File::operator=(File&& other) noexcept {
  std::swap(fd, other.fd);
  return *this;
}

// Mapped twice: address space for both is reserved first, so that nothing else comes in between.
Mapping::Mapping(int file, std::uint64_t offset, std::size_t bytes, bool writable, bool twice)
    : size(twice ? 2 * bytes : bytes), address(reservedSpace(size)), madeInFork(forkCount()) {
  for (std::size_t at = 0; at < size; at += bytes) {
    if (mmap(address + at, bytes, PROT_READ | (writable ? PROT_WRITE : PROT_NONE),
             MAP_SHARED | MAP_FIXED, file, static_cast<off_t>(offset)) == MAP_FAILED) {
      const int error = errno;
      munmap(address, size);
      failWithErrno("map", error);
    }
  }
  madvise(address, size, MADV_DONTFORK);
}

// In a forked child, something else may be at this address.
Mapping::~Mapping() {
  if (address != nullptr && madeInFork == forkCount()) {
    munmap(address, size);
  }
}

Mapping::Mapping(Mapping&& other) noexcept
    : size(other.size),
      address(std::exchange(other.address, nullptr)),
      madeInFork(other.madeInFork) {}

std::uint64_t checkedRingSize(std::uint64_t bytes) {
  if (!isRingSize(bytes)) {
    fail(kStatusInvalidArgument, "A ring has ", kSmallestRing, " to ", kLargestRing,
         " bytes, a power of two; this one would have ", bytes);
  }
  return bytes;
}

// All memory is allocated here, which also sets the size: where there is none left, a later access
// would kill the process.
File makeFile(const char* name, std::uint64_t bytes) {
  int fd = memfd_create(name, MFD_CLOEXEC | MFD_ALLOW_SEALING | kNeverExecutable);
  if (fd < 0 && errno == EINVAL) {
    fd = memfd_create(name, MFD_CLOEXEC | MFD_ALLOW_SEALING);
  }
  File file(fd);
  if (fd < 0 || fallocate(fd, 0, 0, static_cast<off_t>(bytes)) != 0) {
    failWithErrno("allocate", errno);
  }
  return file;
}

void seal(const File& file, Sealed what) {
  const int seals = what == Sealed::sizeAndWriting ? kSizeSeals | F_SEAL_FUTURE_WRITE : kSizeSeals;
  if (fcntl(file.get(), F_ADD_SEALS, seals) != 0) {
    failWithErrno("seal", errno);
  }
}

void requireSealed(const File& file, std::uint64_t bytes) {
  struct stat status = {};
  const int seals = fcntl(file.get(), F_GET_SEALS);
  if (seals == -1 || (seals & kSizeSeals) != kSizeSeals || fstat(file.get(), &status) != 0 ||
      static_cast<std::uint64_t>(status.st_size) != bytes) {
    fail(kLeaseLost, "The server's memory is not a ring of ", bytes,
         " bytes: client and server versions differ; install the same release of both");
  }
}

}  // namespace orvane::ring
