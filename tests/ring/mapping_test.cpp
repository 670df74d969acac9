#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <optional>
#include <stdexcept>
#include <utility>

#include "memory_files.hpp"
#include "raw_ring.hpp"
#include "ring/fork_count.hpp"
#include "ring/memory.hpp"
#include "support/child.hpp"
#include "support/throws.hpp"

namespace orvane::test {
namespace {

using ring::File;
using ring::makeFile;
using ring::Mapping;

bool isMapped(const void* address) {
  unsigned char present = 0;
  return mincore(const_cast<void*>(address), kPageSize, &present) == 0;
}

// The size of all mappings.
std::size_t mappedPages() {
  std::ifstream sizes("/proc/self/statm");
  std::size_t pages = 0;
  sizes >> pages;
  return pages;
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

}  // namespace
}  // namespace orvane::test
