#include "orvane/ring_reader.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <regex>

#include "orvane/batch_view.hpp"
#include "raw_ring.hpp"
#include "support/limits.hpp"
#include "support/temp_folder.hpp"
#include "support/throws.hpp"
#include "support/waiting_thread.hpp"

namespace orvane::test {
namespace {

const Bytes kBatch =
    hex("ff00ee11 00000001"
        "00000000 00000000 0000000000000000 0000000000000000 00000001 00000000"
        "00000000 00000000 00000000 aabbccdd");

std::string noRingOf(const std::string& bytes) {
  return "A ring has 1048576 to 268435456 bytes, a power of two; this one would have " + bytes;
}

std::size_t descriptors() {
  return namesIn("/proc/self/fd").size();
}

std::size_t mappingsOfRings() {
  std::ifstream maps("/proc/self/maps");
  std::size_t count = 0;
  for (std::string line; std::getline(maps, line);) {
    count += line.find("/memfd:orvane-ring") != std::string::npos ? 1U : 0U;
  }
  return count;
}

TEST(RingSizes, AreOneMebibyteTo256AndEightByDefault) {
  EXPECT_EQ(kSmallestRing, 1048576U);
  EXPECT_EQ(kLargestRing, 268435456U);
  EXPECT_EQ(kDefaultRing, 8388608U);
}

TEST(RingReaderConstruction, RejectsOtherSizes) {
  for (const std::uint64_t bytes :
       {std::uint64_t{0}, std::uint64_t{1}, std::uint64_t{524288}, std::uint64_t{1048575},
        std::uint64_t{1048577}, std::uint64_t{3145728}, std::uint64_t{268435457},
        std::uint64_t{536870912}, std::uint64_t{1} << 63}) {
    EXPECT_TRUE(throwsErrno(9, noRingOf(std::to_string(bytes)), [&] { RingReader ring(bytes); }));
  }
}

TEST(RingReaderConstruction, TakesTheLargestSize) {
  struct stat status = {};
  const RingReader ring(268435456);
  ASSERT_EQ(fstat(ring.producersFile(), &status), 0);
  EXPECT_EQ(status.st_size, 268439552);
}

TEST(RingReaderConstruction, GivesItsFilesNamesThatTheListOfAProcesssFilesShows) {
  const RingReader ring(kRing);
  const auto nameOf = [](int file) {
    return std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(file)).string();
  };
  EXPECT_EQ(nameOf(ring.producersFile()), "/memfd:orvane-ring (deleted)");
  EXPECT_EQ(nameOf(ring.serversFile()), "/memfd:orvane-ring-server (deleted)");
}

TEST(RingReaderConstruction, ReportsThatThereIsNoMemory) {
  const std::size_t before = descriptors();
  const FileSizeLimit limit(4096);
  EXPECT_TRUE(throwsErrno(901, "Cannot allocate a ring's memory: File too large",
                          [] { RingReader ring(kRing); }));
  EXPECT_EQ(descriptors(), before);
}

TEST(RingReaderDestruction, GivesEverythingBack) {
  const std::size_t before = descriptors();
  auto ring = std::make_unique<RingReader>(kRing);
  EXPECT_EQ(descriptors(), before + 2);
  EXPECT_GT(mappingsOfRings(), 0U);
  ring.reset();
  EXPECT_EQ(descriptors(), before);
  EXPECT_EQ(mappingsOfRings(), 0U);
}

TEST(RingReaderFiles, HaveTheFormThatIsDocumented) {
  const RingReader ring(kRing);
  const MappedFile producers(ring.producersFile());
  const MappedFile servers(ring.serversFile());
  struct stat status = {};
  ASSERT_EQ(fstat(ring.producersFile(), &status), 0);
  EXPECT_EQ(status.st_size, 1052672);
  ASSERT_EQ(fstat(ring.serversFile(), &status), 0);
  EXPECT_EQ(status.st_size, 8192);
  Bytes identity = hex("6f727672696e6700 01000000 40000000 0000100000000000");
  identity.resize(4096);
  EXPECT_EQ(producers.bytes(0, 4096), identity);
  identity.resize(8192);
  EXPECT_EQ(servers.bytes(0, 8192), identity);
}

TEST(RingReaderFiles, KeepTheirSizeAndOnlyTheProducersCanBeWritten) {
  const RingReader ring(kRing);
  for (const int file : {ring.producersFile(), ring.serversFile()}) {
    EXPECT_EQ(fcntl(file, F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(ftruncate(file, 0), -1);
    EXPECT_EQ(ftruncate(file, 1 << 30), -1);
    EXPECT_EQ(fcntl(file, F_ADD_SEALS, F_SEAL_WRITE), -1);
  }
  EXPECT_EQ(pwrite(ring.serversFile(), "x", 1, 64), -1);
  EXPECT_ANY_THROW(MappedFile(ring.serversFile(), true));
  EXPECT_EQ(pwrite(ring.producersFile(), "x", 1, 5000), 1);
  EXPECT_NO_THROW(MappedFile(ring.producersFile(), true));
}

TEST(RingReaderFiles, AreOnlyReadByTheServerIfTheyAreTheProducers) {
  const RingReader ring(kRing);
  std::ifstream maps("/proc/self/maps");
  std::size_t count = 0;
  for (std::string line; std::getline(maps, line);) {
    if (line.find("/memfd:orvane-ring (deleted)") != std::string::npos) {
      EXPECT_NE(line.find(" r--s "), std::string::npos) << line;
      ++count;
    }
  }
  EXPECT_EQ(count, 3U) << "the page, and the data twice";
}

TEST(RingReaderReceive, ReturnsNothingFromAnEmptyRing) {
  RingReader ring(kRing);
  const RingReader::Batch batch = ring.receive();
  EXPECT_EQ(batch.data, nullptr);
  EXPECT_EQ(batch.size, 0U);
  EXPECT_EQ(ring.waiting(), 0U);
}

TEST(RingReaderReceive, ReturnsTheBytesOfEachFrameInTheirOrder) {
  RingReader ring(kRing);
  RawProducer producer(ring);
  producer.publish(kBatch);
  producer.publish(bytesOf("second"));
  EXPECT_EQ(ring.waiting(), 192U);
  EXPECT_EQ(received(ring), kBatch);
  ring.answer(responseOf(0));
  EXPECT_EQ(ring.waiting(), 64U);
  EXPECT_EQ(received(ring), bytesOf("second"));
  ring.answer(responseOf(0));
  EXPECT_EQ(received(ring), Bytes());
  EXPECT_EQ(ring.waiting(), 0U);
}

TEST(RingReaderReceive, KeepsItsCopyWhateverTheProducerWrites) {
  RingReader ring(kRing);
  RawProducer producer(ring);
  producer.publish(kBatch);
  const RingReader::Batch batch = ring.receive();
  std::memset(producer.file.at(kData), 0xff, 4096);
  producer.write(0, 5000, 9, bytesOf("other"));
  EXPECT_EQ(Bytes(batch.data, batch.data + batch.size), kBatch);
  ring.answer(responseOf(0));
  EXPECT_EQ(producer.servers.get64(kHead), 128U) << "the size is not read again";
}

TEST(RingReaderReceive, ReleasesWholeLinesWhenItsFrameIsAnswered) {
  RingReader ring(kRing);
  RawProducer producer(ring);
  std::uint64_t head = 0;
  for (const auto& [size, lines] :
       {std::pair{8U, 1U}, {48U, 1U}, {49U, 2U}, {112U, 2U}, {113U, 3U}, {262128U, 4096U}}) {
    producer.publish(Bytes(size, 'x'));
    EXPECT_EQ(received(ring), Bytes(size, 'x'));
    EXPECT_EQ(producer.servers.get64(kHead), head);
    ring.answer(responseOf(0));
    head += std::uint64_t{64} * lines;
    EXPECT_EQ(producer.servers.get64(kHead), head);
  }
}

TEST(RingReaderReceive, HandsABatchOnThatIsTooShortForOne) {
  RingReader ring(kRing);
  RawProducer producer(ring);
  producer.publish(bytesOf("1234567"));
  const RingReader::Batch batch = ring.receive();
  ASSERT_EQ(batch.size, 7U);
  EXPECT_ANY_THROW(BatchView(batch.data, batch.size));
  ring.answer(responseOf(1000, "no batch"));
  producer.publish(Bytes());
  const RingReader::Batch empty = ring.receive();
  EXPECT_NE(empty.data, nullptr);
  EXPECT_EQ(empty.size, 0U);
}

TEST(RingReaderReceive, ReadsAFrameAcrossTheEndOfTheRing) {
  RingReader ring(kRing);
  MappedFile file(ring.producersFile(), true);
  std::uint64_t tail = 0;
  std::uint64_t number = 0;
  const auto publish = [&](std::uint64_t size) {
    const std::uint64_t header[] = {size, ++number};
    std::memcpy(file.at(kData + tail % kRing), header, 16);
    tail += (16 + size + 63) / 64 * 64;
    file.put64(kTail, tail);
  };
  for (int i = 0; i < 4; ++i) {
    publish(262064);  // leaves 64 bytes less than a quarter each: 256 before the end
    ASSERT_EQ(received(ring).size(), 262064U);
    ring.answer(responseOf(0));
  }
  ASSERT_EQ(tail, 1048320U);
  Bytes data(1000);
  for (std::size_t i = 0; i < data.size(); ++i) {
    data[i] = static_cast<unsigned char>(i * 7);
  }
  std::memcpy(file.at(kData + tail + 16), data.data(), 240);
  std::memcpy(file.at(kData), data.data() + 240, 760);
  publish(1000);
  EXPECT_EQ(received(ring), data);
}

TEST(RingReaderWait, ReturnsAtOnceWhenThereIsABatch) {
  RingReader ring(kRing);
  RawProducer producer(ring);
  producer.publish(kBatch);
  ring.wait();
  EXPECT_EQ(producer.servers.get32(kNap), 0U) << "it did not sleep";
}

TEST(RingReaderWait, SleepsOnceAndReturnsWithoutABatch) {
  RingReader ring(kRing);
  const RawProducer producer(ring);
  const Stopwatch watch;
  ring.wait();
  EXPECT_GE(watch.seconds(), 0.099);
  EXPECT_LT(watch.seconds(), 30);
  EXPECT_EQ(producer.servers.get32(kNap), 2U);
  ring.wait();
  EXPECT_EQ(producer.servers.get32(kNap), 4U);
}

// Wakes whoever sleeps on a counter, as a producer does.
long wake(const unsigned char* word) {
  return syscall(SYS_futex, word, 1 /* FUTEX_WAKE */, 1, nullptr, nullptr, 0);
}

TEST(RingReaderWait, OfTheProducerIsAsThatSays) {
  RingReader ring(kRing);
  RawProducer producer(ring);
  EXPECT_EQ(ring.producersWaits().nanoseconds, 0U);
  EXPECT_EQ(ring.producersWaits().sleeps, 0U);
  producer.file.put64(kBlocked, ~std::uint64_t{0});
  producer.file.put64(kNap, 5);  // it sleeps for the third time
  EXPECT_EQ(ring.producersWaits().nanoseconds, ~std::uint64_t{0});
  EXPECT_EQ(ring.producersWaits().sleeps, 2U);
}

TEST(RingReaderWait, IsEndedByAProducerThatWakesIt) {
  RingReader ring(kRing);
  RawProducer producer(ring);
  long woken = 0;
  for (int i = 0; i < 100 && woken == 0; ++i) {  // each nap is short: a busy machine misses some
    WaitingThread thread([&] { ring.wait(); });
    while (producer.servers.get32(kNap) % 2 == 0 && woken == 0) {
      woken = wake(producer.file.at(kTail));
    }
    while (producer.servers.get32(kNap) % 2 == 1 && woken == 0) {
      woken = wake(producer.file.at(kTail));
    }
    thread.returns();
  }
  EXPECT_EQ(woken, 1) << "it sleeps on the producer's tail, and its nap is odd then";
}

}  // namespace
}  // namespace orvane::test
