#include "ring/memory.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <optional>
#include <stdexcept>
#include <utility>

#include "raw_ring.hpp"
#include "ring/fork_count.hpp"
#include "support/child.hpp"
#include "support/limits.hpp"
#include "support/temp_folder.hpp"
#include "support/throws.hpp"

namespace orvane::test {
namespace {

using ring::File;
using ring::makeFile;
using ring::Mapping;
using ring::Sealed;

constexpr std::size_t kPageSize = 4096;

constexpr std::uint64_t k4GiB = std::uint64_t{1} << 32;

// A file of zeros without memory of its own.
File sparseFile(std::uint64_t bytes) {
  File file(memfd_create("sparse", MFD_CLOEXEC | MFD_ALLOW_SEALING));
  orThrow(ftruncate(file.get(), static_cast<off_t>(bytes)), "ftruncate");
  return file;
}

int sealsOf(int file) {
  return fcntl(file, F_GET_SEALS);
}

bool isOpen(int fd) {
  return fcntl(fd, F_GETFD) >= 0;
}

bool isMapped(const void* address) {
  unsigned char present = 0;
  return mincore(const_cast<void*>(address), kPageSize, &present) == 0;
}

// Whether the system may write there.
bool isWritable(void* address) {
  int ends[2];
  orThrow(pipe(ends), "pipe");
  orThrow(static_cast<int>(write(ends[1], "x", 1)), "write");
  const bool written = read(ends[0], address, 1) == 1;
  close(ends[0]);
  close(ends[1]);
  return written;
}

// The size of all mappings.
std::size_t mappedPages() {
  std::ifstream sizes("/proc/self/statm");
  std::size_t pages = 0;
  sizes >> pages;
  return pages;
}

TEST(RingFile, IsClosedOnceAtItsEnd) {
  int fd = -1;
  {
    File first = makeFile("test", kPageSize);
    fd = first.get();
    File second(std::move(first));
    EXPECT_EQ(first.get(), -1);  // NOLINT(bugprone-use-after-move): it is empty
    EXPECT_EQ(second.get(), fd);
    File third;
    EXPECT_EQ(third.get(), -1);
    third = std::move(second);
    EXPECT_EQ(third.get(), fd);
    EXPECT_TRUE(isOpen(fd));
  }
  EXPECT_FALSE(isOpen(fd));
}

TEST(RingFile, IsClosedAsTheLowestDescriptorToo) {
  Child child([] {
    close(0);
    errno = EINVAL;  // of an earlier call
    if (makeFile("test", kPageSize).get() != 0) {
      throw std::runtime_error("it is another descriptor");
    }
    if (isOpen(0)) {
      throw std::runtime_error("it is still open");
    }
  });
  EXPECT_EQ(child.nextChange(), "exit 0");
}

TEST(RingFile, IsNotClosedAfterItsRelease) {
  int fd = -1;
  {
    File file = makeFile("test", kPageSize);
    fd = file.release();
    EXPECT_EQ(file.get(), -1);
  }
  EXPECT_TRUE(isOpen(fd));
  close(fd);
}

TEST(RingFile, HasAllItsMemoryFromTheBeginning) {
  const File file = makeFile("test", 5 * kPageSize);
  struct stat status = {};
  ASSERT_EQ(fstat(file.get(), &status), 0);
  EXPECT_EQ(status.st_size, 20480);
  EXPECT_GE(status.st_blocks * 512, 20480);
  EXPECT_EQ(fcntl(file.get(), F_GETFD), FD_CLOEXEC);
}

TEST(RingFile, IsNeverExecutableWhereLinuxHasThat) {
  constexpr unsigned kNoExec = 8;  // MFD_NOEXEC_SEAL, of Linux 6.3
  const File probe(memfd_create("probe", kNoExec));
  const File file = makeFile("test", kPageSize);
  const int execSeal = 0x20;
  EXPECT_EQ((sealsOf(file.get()) & execSeal) != 0, probe.get() >= 0);
}

TEST(RingFile, IsRefusedWithoutRoomForIt) {
  const FileSizeLimit limit(kPageSize);
  EXPECT_TRUE(throwsErrno(901, "Cannot allocate a ring's memory: File too large",
                          [] { makeFile("test", 2 * kPageSize); }));
  EXPECT_TRUE(throwsErrno(901, "Cannot allocate a ring's memory: File too large",
                          [] { makeFile("test", k4GiB + kPageSize); }));
}

TEST(RingSeal, KeepsTheSizeAndAllowsToWrite) {
  const File file = makeFile("test", kPageSize);
  seal(file, Sealed::size);
  EXPECT_EQ(sealsOf(file.get()) & ~0x20, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL);
  EXPECT_EQ(ftruncate(file.get(), 0), -1);
  EXPECT_EQ(ftruncate(file.get(), 2 * kPageSize), -1);
  EXPECT_EQ(pwrite(file.get(), "x", 1, 0), 1);
  EXPECT_TRUE(isWritable(Mapping(file.get(), 0, kPageSize, true).get()));
}

TEST(RingSeal, ForbidsWritersThatComeLater) {
  const File file = makeFile("test", kPageSize);
  const Mapping early(file.get(), 0, kPageSize, true);
  seal(file, Sealed::sizeAndWriting);
  EXPECT_EQ(sealsOf(file.get()) & ~0x20,
            F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL | F_SEAL_FUTURE_WRITE);
  EXPECT_EQ(pwrite(file.get(), "x", 1, 0), -1);
  EXPECT_EQ(errno, EPERM);
  EXPECT_TRUE(throwsErrno(901, "Cannot map a ring's memory: Operation not permitted",
                          [&] { Mapping(file.get(), 0, kPageSize, true); }));
  const Mapping late(file.get(), 0, kPageSize, false);
  EXPECT_EQ(mprotect(late.get(), kPageSize, PROT_READ | PROT_WRITE), -1);
  *early.get() = 7;
  EXPECT_EQ(*late.get(), 7);
}

TEST(RingSeal, ReportsThatItCannotBeAdded) {
  const File file = makeFile("test", kPageSize);
  seal(file, Sealed::size);
  EXPECT_TRUE(throwsErrno(901, "Cannot seal a ring's memory: Operation not permitted",
                          [&] { seal(file, Sealed::size); }));
}

TEST(RingMapping, ShowsThePartOfTheFileThatItWasMadeFor) {
  const File file = makeFile("test", 3 * kPageSize);
  orThrow(static_cast<int>(pwrite(file.get(), "abc", 3, kPageSize)), "pwrite");
  const Mapping mapping(file.get(), kPageSize, kPageSize, false);
  EXPECT_EQ(Bytes(mapping.get(), mapping.get() + 4), hex("61 62 63 00"));
  EXPECT_FALSE(isWritable(mapping.get()));
}

TEST(RingMapping, ShowsAPartThatBeginsBeyond4GiB) {
  const File file = sparseFile(k4GiB + kPageSize);
  orThrow(static_cast<int>(pwrite(file.get(), "abc", 3, k4GiB)), "pwrite");
  const Mapping mapping(file.get(), k4GiB, kPageSize, false);
  EXPECT_EQ(Bytes(mapping.get(), mapping.get() + 4), hex("61 62 63 00"));
}

TEST(RingMapping, ShowsTheSameBytesTwiceInARow) {
  const File file = makeFile("test", 3 * kPageSize);
  const Mapping mapping(file.get(), kPageSize, 2 * kPageSize, true, true);
  unsigned char* const data = mapping.get();
  data[0] = 1;
  EXPECT_EQ(data[8192], 1);
  data[8191] = 2;
  EXPECT_EQ(data[16383], 2);
  data[8192] = 3;
  EXPECT_EQ(data[0], 3);
  const Bytes acrossTheEnd = bytesOf("abcd");
  std::copy(acrossTheEnd.begin(), acrossTheEnd.end(), data + 8190);
  EXPECT_EQ(Bytes(data, data + 2), bytesOf("cd"));
  const MappedFile whole(file.get());
  EXPECT_EQ(whole.bytes(4096, 2), bytesOf("cd"));
  EXPECT_EQ(whole.bytes(12286, 2), bytesOf("ab"));
  EXPECT_EQ(whole.bytes(0, 4096), Bytes(4096, 0));
}

TEST(RingMapping, IsUnmappedAsAWhole) {
  const File file = makeFile("test", kPageSize);
  std::optional<Mapping> mapping(std::in_place, file.get(), 0, kPageSize, true, true);
  const unsigned char* const data = mapping->get();
  mapping.reset();
  EXPECT_FALSE(isMapped(data));
  EXPECT_FALSE(isMapped(data + kPageSize));
}

TEST(RingMapping, MovesToANewOwner) {
  const File file = makeFile("test", kPageSize);
  Mapping first(file.get(), 0, kPageSize, true, true);
  const unsigned char* const data = first.get();
  {
    Mapping second(std::move(first));
    EXPECT_EQ(first.get(), nullptr);  // NOLINT(bugprone-use-after-move): it is empty
    EXPECT_EQ(second.get(), data);
    EXPECT_TRUE(isMapped(data + kPageSize));
  }
  EXPECT_FALSE(isMapped(data));
  EXPECT_FALSE(isMapped(data + kPageSize));
}

TEST(RingMapping, ThatFailsLeavesNothingMapped) {
  constexpr std::size_t kPages = 262144;
  const std::size_t before = mappedPages();
  EXPECT_TRUE(throwsErrno(901, "Cannot map a ring's memory: Bad file descriptor",
                          [] { Mapping(-1, 0, kPages * kPageSize, true, true); }));
  EXPECT_LT(mappedPages(), before + kPages);  // a sanitizer maps some for an exception
  EXPECT_TRUE(throwsErrno(901, "Cannot reserve a ring's memory: Cannot allocate memory",
                          [] { Mapping(-1, 0, std::size_t{1} << 60, true, true); }));
}

TEST(RingMapping, IsNotThereInAForkedChild) {
  const File file = makeFile("test", kPageSize);
  const Mapping mapping(file.get(), 0, kPageSize, true, true);
  Child child([&] {
    if (isMapped(mapping.get()) || isMapped(mapping.get() + kPageSize)) {
      throw std::runtime_error("the child has the memory");
    }
  });
  EXPECT_EQ(child.nextChange(), "exit 0");
}

TEST(RingMapping, DoesNotUnmapWhatAForkedChildHasAtItsAddress) {
  const File file = makeFile("test", kPageSize);
  std::optional<Mapping> mapping(std::in_place, file.get(), 0, kPageSize, true);
  Child child([&] {
    unsigned char* const address = mapping->get();
    if (mmap(address, kPageSize, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0) !=
        address) {
      throw std::runtime_error("the child cannot map memory there");
    }
    mapping.reset();
    if (!isMapped(address)) {
      throw std::runtime_error("the child's own memory was unmapped");
    }
  });
  EXPECT_EQ(child.nextChange(), "exit 0");
}

// So many forks, each by the child of the one before, as far as this process can tell.
class ManyForks {
 public:
  ManyForks() { ring::forks += kForks; }
  ~ManyForks() { ring::forks -= kForks; }
  ManyForks(const ManyForks&) = delete;
  ManyForks& operator=(const ManyForks&) = delete;

 private:
  static constexpr unsigned int kForks = 65536;
};

TEST(RingMapping, IsLeftAloneAfterAnyNumberOfForks) {
  const File file = makeFile("test", kPageSize);
  std::optional<Mapping> mapping(std::in_place, file.get(), 0, kPageSize, true);
  unsigned char* const data = mapping->get();
  {
    const ManyForks forks;
    mapping.reset();
  }
  EXPECT_TRUE(isMapped(data));
  munmap(data, kPageSize);
}

TEST(RingMapping, IsUnmappedByTheProcessThatMadeItAfterManyForks) {
  const File file = makeFile("test", kPageSize);
  const ManyForks forks;
  std::optional<Mapping> mapping(std::in_place, file.get(), 0, kPageSize, true);
  const unsigned char* const data = mapping->get();
  mapping.reset();
  EXPECT_FALSE(isMapped(data));
}

TEST(RingForks, AreCountedFromTheProcessThatLoadedTheLibrary) {
  EXPECT_EQ(ring::forkCount(), 0U);
  Child child([] {
    if (ring::forkCount() != 1) {
      throw std::runtime_error("the child counts other forks");
    }
    Child grandchild([] {
      if (ring::forkCount() != 2) {
        throw std::runtime_error("the grandchild counts other forks");
      }
    });
    if (grandchild.nextChange() != "exit 0") {
      throw std::runtime_error("in the grandchild");
    }
  });
  EXPECT_EQ(child.nextChange(), "exit 0");
}

TEST(RingSize, IsAPowerOfTwoThatARingMayHave) {
  EXPECT_EQ(ring::checkedRingSize(2097152), 2097152U);
  EXPECT_TRUE(throwsErrno(9,
                          "A ring has 1048576 to 268435456 bytes, a power of two; this one would "
                          "have 4296015872",
                          [] { ring::checkedRingSize(k4GiB + 1048576); }));
}

std::string notARing(const std::string& bytes) {
  return "The server's memory is not a ring of " + bytes +
         " bytes: client and server versions differ; install the same release of both";
}

TEST(RingCheck, AcceptsAFileThatKeepsItsSize) {
  for (const Sealed what : {Sealed::size, Sealed::sizeAndWriting}) {
    const File file = makeFile("test", kPageSize);
    seal(file, what);
    EXPECT_NO_THROW(requireSealed(file, kPageSize));
  }
}

TEST(RingCheck, RefusesAnotherSize) {
  const File file = makeFile("test", kPageSize);
  seal(file, Sealed::size);
  EXPECT_TRUE(throwsErrno(901, notARing("4095"), [&] { requireSealed(file, 4095); }));
  EXPECT_TRUE(throwsErrno(901, notARing("4097"), [&] { requireSealed(file, 4097); }));
  const File large = sparseFile(k4GiB + kPageSize);
  seal(large, Sealed::size);
  EXPECT_TRUE(throwsErrno(901, notARing("4096"), [&] { requireSealed(large, 4096); }));
}

TEST(RingCheck, RefusesAFileThatMayChangeItsSize) {
  for (const int seals :
       {0, F_SEAL_SHRINK | F_SEAL_GROW, F_SEAL_SHRINK | F_SEAL_SEAL, F_SEAL_GROW | F_SEAL_SEAL}) {
    const File file = makeFile("test", kPageSize);
    ASSERT_EQ(fcntl(file.get(), F_ADD_SEALS, seals), 0);
    EXPECT_TRUE(throwsErrno(901, notARing("4096"), [&] { requireSealed(file, 4096); })) << seals;
  }
}

TEST(RingCheck, RefusesWhatIsNoFileInMemory) {
  const TempFolder folder;
  writeFile(folder.path() + "/file", std::string(4096, 'x'));
  const File file(open((folder.path() + "/file").c_str(), O_RDWR | O_CLOEXEC));
  EXPECT_TRUE(throwsErrno(901, notARing("4096"), [&] { requireSealed(file, 4096); }));
  EXPECT_TRUE(throwsErrno(901, notARing("4096"), [] { requireSealed(File(), 4096); }));
}

}  // namespace
}  // namespace orvane::test
