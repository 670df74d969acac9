// A worker on a ring whose producer changes all that it can write while it is read: its counters,
// frames, batches, records and data, and the memory itself, in which it punches holes.
//
// Reaches what no test of one thread reaches: a value that changes after it was checked. Whatever
// comes in must be one private copy: what was received is what is stored, and what is checksummed.

#include <fuzzer/FuzzedDataProvider.h>
#include <unistd.h>

#include <algorithm>
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
#include "scribbled_producer.hpp"
#include "scribbler.hpp"
#include "store/store.hpp"
#include "store_format/manifest.hpp"
#include "store_format/manifest_reader.hpp"
#include "worker/ring_source.hpp"
#include "worker/worker.hpp"

using orvane::pvk_shm_response_t;
using orvane::test::Bytes;
using orvane::test::kRing;

namespace {

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
  ScribbledProducer producer;
  std::optional<Scribbler> scribbler;
  int turns = 0;
};

// The lines of all files of a stream. Each file is as its line says.
std::vector<std::string> filesOf(const std::filesystem::path& stream) {
  std::vector<std::string> lines;
  for (std::string& line : linesOf(tool::readManifest(stream / tool::kManifest))) {
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
