#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <barrier>
#include <queue>
#include <thread>
#include <vector>

#include "orvane/batch_view.hpp"
#include "ox/errno_exception.hpp"
#include "support/allocations.hpp"
#include "support/wire.hpp"

// A reader is stopped at each byte of a batch in turn while another reads a whole batch. What the
// first one then gives back is its own.
namespace orvane::test::batch_threads {
namespace {

using Entry = ShmBatch::Entry;
using Reader = std::vector<Entry> (*)(const unsigned char* bytes, std::size_t size);

std::vector<Entry> readTrusting(const unsigned char* bytes, std::size_t size) {
  std::queue<Entry> queue;
  ShmBatch::getEntriesFromBuffer(queue, bytes, size);
  std::vector<Entry> entries;
  for (; !queue.empty(); queue.pop()) {
    entries.push_back(queue.front());
  }
  return entries;
}

std::vector<Entry> readChecking(const unsigned char* bytes, std::size_t size) {
  const BatchView view(bytes, size);
  return {view.begin(), view.end()};
}

std::vector<Entry> readMetaDataOnly(const unsigned char* bytes, std::size_t) {
  ShmBatch::MetaData metaData;
  metaData.deserializeFromBuffer(bytes);
  pvk_shm_message_t header;
  header.seqNo = metaData.numEntries;
  return {Entry(header, nullptr)};
}

const Bytes kFirst = BatchBytes()
                         .records({{.type = 1, .seqNo = 11, .data = bytesOf("hello")},
                                   {.type = 2, .seqNo = 12},
                                   {.type = 3, .seqNo = 13, .data = bytesOf("abc")}})
                         .bytes();
const Bytes kSecond = BatchBytes()
                          .records({{.type = 7,
                                     .seqNo = 0x7172737475767778,
                                     .segmentNo = 7,
                                     .segmentDone = 7,
                                     .segAlg = 7,
                                     .segParam1 = 7,
                                     .segParam2 = 7,
                                     .segParam3 = 7,
                                     .data = bytesOf("other")}})
                          .bytes();

// kFirst, where the first thread that reads a byte from the `gate`-th on waits for open().
class GatedBytes {
 public:
  explicit GatedBytes(std::size_t gate) {
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    mapped = 2 * page;
    base = static_cast<unsigned char*>(
        mmap(nullptr, mapped, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    closedPage = base + page;
    std::copy(kFirst.begin(), kFirst.end(), closedPage - gate);
    mprotect(closedPage, page, PROT_NONE);
    bytes = closedPage - gate;
    at = this;
    struct sigaction action = {};
    action.sa_sigaction = waitAtGate;
    action.sa_flags = SA_SIGINFO;
    sigaction(SIGSEGV, &action, &before);
  }
  ~GatedBytes() {
    sigaction(SIGSEGV, &before, nullptr);
    munmap(base, mapped);
  }
  GatedBytes(const GatedBytes&) = delete;
  GatedBytes& operator=(const GatedBytes&) = delete;

  const unsigned char* data() const { return bytes; }
  bool isReached() const { return reached; }
  void open() { opened = true; }

 private:
  static void waitAtGate(int, siginfo_t* info, void*) {
    if (info->si_addr < at->closedPage || info->si_addr >= at->base + at->mapped) {
      sigaction(SIGSEGV, &at->before, nullptr);
      return;  // it happens again, for the handler before
    }
    at->reached = true;
    while (!at->opened) {
      std::this_thread::yield();
    }
    mprotect(at->closedPage, at->mapped / 2, PROT_READ);
  }

  inline static GatedBytes* at = nullptr;
  unsigned char* base;
  unsigned char* closedPage;
  const unsigned char* bytes;
  std::size_t mapped;
  struct sigaction before = {};
  std::atomic<bool> reached = false;
  std::atomic<bool> opened = false;
};

// Reads kFirst in a thread that is stopped at the gate while this one does something else.
template <typename Else>
std::vector<Entry> readStoppedAt(GatedBytes& bytes, Reader read, Else doMeanwhile) {
  std::vector<Entry> entries;
  std::atomic<bool> ended = false;
  std::thread thread([&] {
    try {
      entries = read(bytes.data(), kFirst.size());
    } catch (const Ox_ErrnoException& e) {
      ADD_FAILURE() << e.what();
    }
    ended = true;
  });
  while (!bytes.isReached() && !ended) {
    std::this_thread::yield();
  }
  doMeanwhile();
  bytes.open();
  thread.join();
  return entries;
}

// A reader that is stopped at each of its allocations: between two entries, not inside one.
TEST(StoppedReaders, ShareNoStateWhileOneAllocates) {
  ShmBatch batch(8 + 30 * 48);
  pvk_shm_message_t header;
  for (header.seqNo = 0; header.seqNo < 30; ++header.seqNo) {
    batch.pushBack(Entry(header, nullptr));
  }
  int stops = 0;
  std::queue<Entry> other;
  std::queue<Entry> entries;
  {
    const Allocations reading([&](std::size_t) {
      ++stops;
      std::thread thread(
          [&] { ShmBatch::getEntriesFromBuffer(other, kSecond.data(), kSecond.size()); });
      thread.join();
      return nullptr;
    });
    ShmBatch::getEntriesFromBuffer(entries, batch.getRaw(), batch.getRawSize());
  }
  EXPECT_GT(stops, 3);
  ASSERT_EQ(entries.size(), 30U);
  for (std::size_t i = 0; i < 30; ++i, entries.pop()) {
    EXPECT_EQ(entries.front().header.seqNo, i);
  }
}

// What a variable that both share does to the results depends on the compiler; ThreadSanitizer
// always sees it.
TEST(TwoReaders, ReadAtOnce) {
  std::barrier start(2);
  const auto readOften = [&start](const Bytes& bytes, std::size_t count, std::uint64_t firstSeqNo) {
    start.arrive_and_wait();
    for (int i = 0; i < 1000; ++i) {
      for (const Reader read : {readTrusting, readChecking}) {
        const std::vector<Entry> entries = read(bytes.data(), bytes.size());
        ASSERT_EQ(entries.size(), count);
        ASSERT_EQ(entries[0].header.seqNo, firstSeqNo);
      }
    }
  };
  std::thread other(readOften, kFirst, 3, 11);
  readOften(kSecond, 1, 0x7172737475767778);
  other.join();
}

struct Reading {
  const char* name;
  Reader read;
};

class StoppedReader : public testing::TestWithParam<Reading> {};

TEST_P(StoppedReader, SharesNoState) {
  const Reader read = GetParam().read;
  const std::vector<Entry> expected = read(kFirst.data(), kFirst.size());
  for (std::size_t gate = 0; gate < kFirst.size(); ++gate) {
    GatedBytes bytes(gate);
    const std::vector<Entry> entries = readStoppedAt(
        bytes, read, [read] { EXPECT_EQ(read(kSecond.data(), kSecond.size()).size(), 1U); });
    ASSERT_EQ(entries.size(), expected.size()) << "stopped at byte " << gate;
    for (std::size_t i = 0; i < entries.size(); ++i) {
      ASSERT_TRUE(entries[i].header == expected[i].header) << "stopped at byte " << gate;
      ASSERT_EQ(entries[i].data == nullptr, expected[i].data == nullptr);
      if (entries[i].data != nullptr) {
        ASSERT_EQ(entries[i].data - bytes.data(), expected[i].data - kFirst.data());
      }
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Each, StoppedReader,
                         testing::Values(Reading{"Trusting", readTrusting},
                                         Reading{"Checking", readChecking},
                                         Reading{"OfMetadata", readMetaDataOnly}),
                         [](const auto& reading) { return std::string(reading.param.name); });

}  // namespace
}  // namespace orvane::test::batch_threads
