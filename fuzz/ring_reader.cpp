// A worker on a ring whose producer changes all that it can write while it is read: its counters,
// frames, batches, records and data, and the memory itself, in which it punches holes.
//
// Reaches what no test of one thread reaches: a value that changes after it was checked. Whatever
// comes in must be one private copy: what was received is what is stored, and what is checksummed.

#include <fuzzer/FuzzedDataProvider.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <optional>
#include <orvane/orvane.hpp>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "require.hpp"
#include "ring/raw_ring.hpp"
#include "scribbler.hpp"
#include "store/store.hpp"
#include "store_format/manifest_reader.hpp"
#include "worker/ring_source.hpp"
#include "worker/worker.hpp"

using orvane::BatchView;
using orvane::pvk_shm_message_t;
using orvane::pvk_shm_response_t;
using orvane::ShmBatch;
using orvane::test::Bytes;
using orvane::test::kData;
using orvane::test::kRing;
using orvane::test::MappedFile;

namespace {

constexpr std::uint64_t kWant = 136;
constexpr std::uint64_t kBlocked = 144;
constexpr std::size_t kFrameHeader = 16;
constexpr std::size_t kLargestBatch = kRing / 4 - kFrameHeader;

// Where the streams of one input go.
struct Folder {
  explicit Folder(const std::string& ending) : path("/dev/shm/" + queue() + ending) {
    std::filesystem::create_directory(path);
  }
  ~Folder() { std::filesystem::remove_all(path); }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;

  static std::string queue() { return "orvane_fuzz." + std::to_string(getpid()); }

  const std::filesystem::path path;
};

// Records that are valid one after the other, nearly always.
class Records {
 public:
  // A batch of them, of at most what a frame holds.
  const ShmBatch& batch(FuzzedDataProvider& input) {
    static ShmBatch batch(kLargestBatch);
    batch.clear();
    for (int i = input.ConsumeIntegralInRange<int>(0, 5); i >= 0; --i) {
      const pvk_shm_message_t header = next(input);
      const Bytes data(header.len, input.ConsumeIntegral<unsigned char>());
      const ShmBatch::Entry entry(header, data.data());
      if (batch.canStore(entry)) {
        batch.pushBack(entry);
      }
    }
    return batch;
  }

 private:
  pvk_shm_message_t next(FuzzedDataProvider& input) {
    pvk_shm_message_t header;
    header.type = input.PickValueInArray({0U, 1U, 1U, 1U, 1U, 2U, 2U, 3U, 4U, 9U});
    seqNo = header.type == orvane::kRecordOpen ? 0 : seqNo + (seqNo == 0 ? 2 : 1);
    segmentNo = header.type == orvane::kRecordOpen ? 0 : segmentNo;
    header.seqNo = seqNo;
    header.segmentNo = segmentNo;
    if (header.type == orvane::kRecordSegmentData || header.type == 9) {
      const std::uint32_t sizes[] = {100, 100, 100, 4096, 30000, kLargestBatch - 56};
      header.len = input.ConsumeIntegralInRange<std::uint32_t>(0, input.PickValueInArray(sizes));
      header.segmentDone = 0;
    } else if (header.type != orvane::kRecordOpen) {
      ++segmentNo;
    }
    if (input.ConsumeIntegralInRange<int>(0, 15) == 15) {
      header.seqNo = input.ConsumeIntegral<std::uint64_t>();
      header.segmentNo = input.ConsumeIntegral<std::uint64_t>();
    }
    return header;
  }

  std::uint64_t seqNo = 0;
  std::uint64_t segmentNo = 0;
};

// Sends valid frames, and says where to change what of them.
class Producer {
 public:
  explicit Producer(const orvane::RingReader& ring)
      : producersFile(ring.producersFile()),
        serversFile(ring.serversFile()),
        page(producersFile, true),
        servers(serversFile) {}

  void send(FuzzedDataProvider& input) {
    frames.clear();
    for (int i = input.ConsumeIntegralInRange<int>(0, 4); i > 0; --i) {
      const ShmBatch& batch = records.batch(input);
      const std::uint64_t size = (kFrameHeader + batch.getRawSize() + 63) / 64 * 64;
      if (tail + size - servers.get64(orvane::test::kHead) > kRing) {
        break;
      }
      const std::uint64_t header[] = {batch.getRawSize(), ++number};
      write(tail, header, sizeof header);
      write(tail + kFrameHeader, batch.getRaw(), batch.getRawSize());
      frames.push_back(tail);
      tail += size;
    }
    page.put64(orvane::test::kTail, tail);
  }

  std::vector<Change> changes(FuzzedDataProvider& input) const {
    std::vector<Change> list;
    for (int i = input.ConsumeIntegralInRange<int>(0, 6); i > 0; --i) {
      list.push_back(change(input));
    }
    return list;
  }

  unsigned char* counter() const { return page.at(orvane::test::kTail); }

 private:
  void write(std::uint64_t position, const void* from, std::size_t size) const {
    const std::uint64_t begin = position % kRing;
    const std::size_t first = std::min<std::size_t>(size, kRing - begin);
    std::memcpy(page.at(kData + begin), from, first);
    std::memcpy(page.at(kData), static_cast<const char*>(from) + first, size - first);
  }

  Change change(FuzzedDataProvider& input) const {
    const int what = input.ConsumeIntegralInRange<int>(0, 7);
    if (what == 0) {
      return someChange(input, page, producersFile, orvane::test::kTail, tail);
    }
    if (what == 1) {
      const std::uint64_t places[] = {orvane::test::kNap, kWant, kBlocked,
                                      orvane::test::kAnswersTaken};
      return someChange(input, page, producersFile, input.PickValueInArray(places), 16);
    }
    if (what == 2) {  // of the file that it may only read
      const auto offset = input.ConsumeIntegralInRange<std::uint64_t>(0, 8191);
      return {&servers, serversFile, offset, 4096, Change::hole, false, 0};
    }
    const std::uint64_t frame =
        frames.empty() ? tail
                       : frames[input.ConsumeIntegralInRange<std::size_t>(0, frames.size() - 1)];
    if (what == 3) {  // a size that is right for one moment, and wrong for the next
      return {&page,
              producersFile,
              kData + frame % kRing,
              someNumber(input, kLargestBatch),
              Change::word64,
              true,
              0};
    }
    const std::uint64_t limit = what == 7 ? kRing - 1 : 127;  // metadata and the first headers
    const auto inFrame = input.ConsumeIntegralInRange<std::uint64_t>(0, limit);
    return someChange(input, page, producersFile, kData + (frame + inFrame) % kRing, 100);
  }

  const int producersFile;
  const int serversFile;
  const MappedFile page;
  const MappedFile servers;
  Records records;
  std::vector<std::uint64_t> frames;  // of the last send()
  std::uint64_t tail = 0;
  std::uint64_t number = 0;
};

// A ring, and all that was received from it.
class CheckedRing : public orvaned::BatchSource {
 public:
  std::optional<std::span<const unsigned char>> receive() override {
    REQUIRE(ring.waiting() <= kRing / 64);
    inHand = ring.receive();
    if (inHand) {
      REQUIRE(inHand->size() <= kLargestBatch);
      received.emplace_back(inHand->begin(), inHand->end());
    }
    return inHand;
  }
  std::size_t waiting() override { return ring.waiting(); }
  void answer(const pvk_shm_response_t& response) override {
    if (inHand) {  // otherwise it is a notice
      REQUIRE(std::equal(inHand->begin(), inHand->end(), received.back().begin()));
      inHand.reset();
    }
    ring.answer(response);
  }
  void postPending() override { ring.postPending(); }
  void discardResponses() override { ring.discardResponses(); }
  bool wait() override { return waits-- <= 0 || ring.wait(); }
  tool::Totals& totals() override { return ring.totals(); }

  orvaned::Heartbeat heartbeat;
  tool::RingTotals published;
  orvaned::RingSource ring{kRing, heartbeat, published};
  std::vector<Bytes> received;
  int waits = 0;  // how often the worker really waits: each time may take 0.1 s

 private:
  std::optional<std::span<const unsigned char>> inHand;
};

// The same batches once more, from memory that nobody changes.
class Again : public orvaned::BatchSource {
 public:
  explicit Again(const std::vector<Bytes>& batches) : batches(batches) {}

  std::optional<std::span<const unsigned char>> receive() override {
    return waiting() == 0 ? std::nullopt : std::optional(std::span(batches[next++]));
  }
  std::size_t waiting() override { return batches.size() - next; }
  void answer(const pvk_shm_response_t& /*response*/) override {}
  void postPending() override {}
  void discardResponses() override {}
  bool wait() override { return true; }
  tool::Totals& totals() override { return counted; }

 private:
  const std::vector<Bytes>& batches;
  std::size_t next = 0;
  tool::Totals counted;
};

const orvaned::Ending kEnding = {"the server was stopped", "the server was stopped"};

// The worker's turns; before some of them the producer sends more and begins other changes.
class Rounds {
 public:
  Rounds(FuzzedDataProvider& input, CheckedRing& ring)
      : input(input), ring(ring), producer(ring.ring.reader()) {}

  const orvaned::Ending* next() {
    if (turns-- > 0) {
      return nullptr;
    }
    if (input.remaining_bytes() == 0) {
      return &kEnding;  // the changes go on
    }
    scribbler.reset();
    producer.send(input);
    turns = input.ConsumeIntegralInRange<int>(1, 12);
    ring.waits = input.ConsumeIntegralInRange<int>(0, 31) / 31;
    const bool onceBefore = input.ConsumeBool();
    std::vector<Change> changes = producer.changes(input);
    if (!changes.empty()) {
      scribbler.emplace(std::move(changes), producer.counter(), onceBefore);
    }
    return nullptr;
  }

 private:
  FuzzedDataProvider& input;
  CheckedRing& ring;
  Producer producer;
  std::optional<Scribbler> scribbler;
  int turns = 0;
};

// The lines of all files of a stream. Each file is as its line says.
std::vector<std::string> filesOf(const std::filesystem::path& stream) {
  std::vector<std::string> lines;
  for (std::string& line : tool::linesOfManifest(stream / tool::kManifest)) {
    if (const auto file = tool::fileIn(line)) {
      REQUIRE(tool::faultOf(stream / file->name, file->content).empty());
      lines.push_back(std::move(line));
    } else if (tool::listsSegmentFile(line) || tool::parseSegment(line)) {
      lines.push_back(std::move(line));
    }
  }
  return lines;
}

// What is stored in a folder: the lines of its streams' files, and the records outside.
std::vector<std::string> storedIn(const Folder& folder) {
  std::map<std::pair<std::size_t, std::string>, std::vector<std::string>> streams;
  std::vector<std::string> all;
  for (const auto& entry : std::filesystem::directory_iterator(folder.path)) {
    const std::string name = entry.path().filename();
    if (entry.is_directory()) {
      streams[{name.size(), name}] = filesOf(entry.path());  // names end in a number that grows
    } else {
      std::ifstream file(entry.path(), std::ios::binary);
      all.emplace_back(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    }
  }
  for (auto& [name, lines] : streams) {
    all.emplace_back("stream");
    std::move(lines.begin(), lines.end(), std::back_inserter(all));
  }
  return all;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  ox::setSink([](ox::Kind, int, const char*) {});  // refusals are logged, thousands a second
  FuzzedDataProvider input(data, size);
  const Folder folder("-store");
  const Folder folderAgain("-again");
  CheckedRing ring;
  {
    Rounds rounds(input, ring);
    orvaned::Store store(folder.path.string(), Folder::queue(), orvaned::Sync::none);
    orvaned::Worker worker(Folder::queue(), ring, store);
    try {
      worker.run([&](auto) { return rounds.next(); });
    } catch (const orvaned::PairFailed&) {
      // The producer broke a rule.
    }
  }
  Again again(ring.received);
  orvaned::Store store(folderAgain.path.string(), Folder::queue(), orvaned::Sync::none);
  orvaned::Worker worker(Folder::queue(), again, store);
  worker.run([&](auto) { return again.waiting() == 0 ? &kEnding : nullptr; });
  REQUIRE(storedIn(folder) == storedIn(folderAgain));
  return 0;
}
