#include "ring/memory.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <string>
#include <utility>

#include "memory_files.hpp"
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

int sealsOf(int file) {
  return fcntl(file, F_GET_SEALS);
}

bool isOpen(int fd) {
  return fcntl(fd, F_GETFD) >= 0;
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
  const File noMemory(open("/proc/self/stat", O_RDONLY | O_CLOEXEC));  // it cannot have seals
  EXPECT_TRUE(throwsErrno(901, notARing("0"), [&] { requireSealed(noMemory, 0); }));
}

}  // namespace
}  // namespace orvane::test
