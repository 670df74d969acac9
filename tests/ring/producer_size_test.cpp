#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>

#include "memory_files.hpp"
#include "raw_ring.hpp"
#include "ring/producer.hpp"
#include "support/throws.hpp"

namespace orvane::test {
namespace {

using ring::File;
using ring::Producer;

// The files of a ring as large as none that a server makes; only what is written has memory.
class SparseRing {
 public:
  explicit SparseRing(std::uint64_t bytes) : mine(made(4096 + bytes)), theirs(made(8192)) {
    for (const File* const file : {&mine, &theirs}) {
      const Bytes identity = hex("6f727672696e6700 01000000 40000000");
      orThrow(static_cast<int>(pwrite(file->get(), identity.data(), 16, 0)), "pwrite");
      orThrow(static_cast<int>(pwrite(file->get(), &bytes, 8, 16)), "pwrite");
    }
  }

  std::uint64_t tail() const {
    std::uint64_t tail = 0;
    orThrow(static_cast<int>(pread(mine.get(), &tail, 8, kTail)), "pread");
    return tail;
  }

  const File mine;
  const File theirs;

 private:
  static File made(std::uint64_t bytes) {
    File file = sparseFile(bytes);
    seal(file, ring::Sealed::size);
    return file;
  }
};

TEST(RingProducer, CountsBeyond4GiB) {
  const SparseRing ring(34359738368);
  Producer producer(ring.mine, ring.theirs, 34359738368, {[] { return false; }, [] {}});
  EXPECT_EQ(producer.largestRecord(), 8589934520U);
  const unsigned char* const first = producer.place(0, 1);
  producer.commit(0);
  EXPECT_EQ(producer.place(4294967295, 1), first + 128) << "more than a usual frame";
  EXPECT_EQ(ring.tail(), 128U);

  producer.setUsualFrame(8589934592);
  EXPECT_EQ(producer.place(0, 1), first + 128);
  EXPECT_EQ(producer.placeInFrame(8589934520), first + 128);
  EXPECT_EQ(producer.placeInFrame(8589934521), nullptr);
  producer.commit(4294967296);
  EXPECT_EQ(producer.placeInFrame(0), first + 128 + 48 + 4294967296);
  producer.publish();
  EXPECT_EQ(ring.tail(), 128U + 4294967424U);
}

TEST(RingProducer, RefusesARingThatIsLargerThanItSays) {
  const SparseRing ring(4296015872);
  const std::uint64_t said = 1048576;
  orThrow(static_cast<int>(pwrite(ring.mine.get(), &said, 8, 16)), "pwrite");
  orThrow(static_cast<int>(pwrite(ring.theirs.get(), &said, 8, 16)), "pwrite");
  EXPECT_TRUE(throwsErrno(
      901,
      "The server's ring has another form: client and server versions differ; install the same "
      "release of both",
      [&] {
        Producer(ring.mine, ring.theirs, 4296015872, {[] { return false; }, [] {}});
      }));
}

}  // namespace
}  // namespace orvane::test
