// A writer on a ring whose server changes all that it can write while it is used: its own counters
// and answers, and also the producer's file, which it made and so can write.
//
// Reaches what no test of one thread reaches: a value that changes after it was checked. A call
// returns or throws what is documented, places are in the ring, and as long as the server leaves
// the producer's file alone, that holds valid frames.

#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <optional>
#include <orvane/orvane.hpp>
#include <orvane/ring_writer.hpp>
#include <utility>
#include <vector>

#include "require.hpp"
#include "ring/memory.hpp"
#include "ring/producer.hpp"
#include "ring/raw_ring.hpp"
#include "scribbler.hpp"

using orvane::BatchView;
using orvane::RingWriter;
using orvane::ShmBatch;
using orvane::test::Bytes;
using orvane::test::kData;
using orvane::test::kFirstAnswer;
using orvane::test::kHead;
using orvane::test::kRing;
using orvane::test::MappedFile;

namespace {

constexpr std::size_t kFrameHeader = 16;
constexpr std::size_t kAnswerBytes = 132;
constexpr unsigned long kNoData = 400000;  // more than any record has

class Server {
 public:
  Server() {
    const orvane::ring::Identity identity = {.bytes = kRing};
    std::memcpy(producers.at(0), &identity, sizeof identity);
    std::memcpy(servers.at(0), &identity, sizeof identity);
    seal(producersFile, orvane::ring::Sealed::size);
    seal(serversFile, orvane::ring::Sealed::size);
    producer = std::make_shared<orvane::ring::Producer>(
        producersFile, serversFile, kRing,
        orvane::ring::Producer::Connection{[this] { return looks-- <= 0; }, [] {}});
  }

  // Before each call: how often the writer finds the server alive.
  void livesFor(int times) { looks = times; }

  // Answers what was sent, as a server does, or nearly so.
  void answer(FuzzedDataProvider& input) {
    for (int i = input.ConsumeIntegralInRange<int>(0, 3); i > 0; --i) {
      unsigned char* const place = servers.at(kFirstAnswer + answers++ % 16 * kAnswerBytes);
      const std::int32_t status = input.ConsumeIntegralInRange<int>(-1, 2) * 500;
      std::memcpy(place, &status, sizeof status);
      std::memset(place + sizeof status, input.ConsumeIntegralInRange<int>(0, 'z'), 128);
      mayThrowAny = mayThrowAny || status != 0;
    }
    servers.put64(orvane::test::kAnswersWritten, answers);
    if (input.ConsumeBool()) {
      servers.put64(kHead, producers.get64(orvane::test::kTail));
    }
  }

  std::vector<Change> changes(FuzzedDataProvider& input) {
    std::vector<Change> list;
    for (int i = input.ConsumeIntegralInRange<int>(0, 6); i > 0; --i) {
      list.push_back(change(input));
    }
    return list;
  }

  // Receives the frames that came since the last call.
  void checkFrames() {
    const std::uint64_t tail = producers.get64(orvane::test::kTail);
    while (!changesFrames && position != tail) {
      std::uint64_t header[2];
      std::memcpy(header, producers.at(kData + position % kRing), sizeof header);
      REQUIRE(header[0] >= 8 + 48 && header[0] <= kRing / 4 - kFrameHeader);
      REQUIRE(header[1] == ++frames);
      Bytes batch(header[0]);
      const std::uint64_t begin = (position + kFrameHeader) % kRing;
      const auto first = std::min<std::size_t>(batch.size(), kRing - begin);
      std::memcpy(batch.data(), producers.at(kData + begin), first);
      std::memcpy(batch.data() + first, producers.at(kData), batch.size() - first);
      for (const ShmBatch::Entry& entry : BatchView(batch.data(), batch.size())) {
        const unsigned char* const end = entry.data + entry.header.len;
        REQUIRE(std::all_of(entry.data, end, [](unsigned char byte) { return byte == 'x'; }));
      }
      position += (kFrameHeader + batch.size() + 63) / 64 * 64;
      REQUIRE(tail - position <= kRing);
    }
  }

  unsigned char* counter() const { return servers.at(kHead); }
  bool mayThrow(ox_status_t status) const {
    return mayThrowAny || status == orvane::kLeaseLost || status == orvane::kStatusTimedOut ||
           status == orvane::kStatusInvalidArgument || status == orvane::kStatusNotOpen ||
           status == orvane::kStatusDoesNotFit || status == orvane::kStatusSegmentTooLarge;
  }

  std::shared_ptr<orvane::ring::Producer> producer;

 private:
  Change change(FuzzedDataProvider& input) {
    const int what = input.ConsumeIntegralInRange<int>(0, 5);
    if (what == 0) {
      const std::uint64_t tail = producers.get64(orvane::test::kTail);
      return someChange(input, servers, serversFile.get(), kHead, tail);
    }
    if (what == 1) {
      const std::uint64_t places[] = {orvane::test::kNap, orvane::test::kAnswersWritten};
      return someChange(input, servers, serversFile.get(), input.PickValueInArray(places), answers);
    }
    if (what <= 3) {
      mayThrowAny = true;
      const auto inAnswers = input.ConsumeIntegralInRange<std::uint64_t>(0, 16 * kAnswerBytes - 1);
      return someChange(input, servers, serversFile.get(), kFirstAnswer + inAnswers, 1000);
    }
    changesFrames = true;
    const auto offset = what == 4
                            ? input.ConsumeIntegralInRange<std::uint64_t>(64, 255)
                            : kData + (position + input.ConsumeIntegral<std::uint16_t>()) % kRing;
    return someChange(input, producers, producersFile.get(), offset, 100);
  }

  const orvane::ring::File producersFile =
      orvane::ring::makeFile("orvane-fuzz-producer", orvane::ring::kPage + kRing);
  const orvane::ring::File serversFile =
      orvane::ring::makeFile("orvane-fuzz-server", sizeof(orvane::ring::ServerPage));
  const MappedFile producers{producersFile.get(), true};
  const MappedFile servers{serversFile.get(), true};
  std::uint64_t answers = 0;
  std::uint64_t position = 0;  // of the next frame
  std::uint64_t frames = 0;
  int looks = 0;
  bool mayThrowAny = false;    // the server's status
  bool changesFrames = false;  // nothing can be said of them any more
};

class Client {
 public:
  explicit Client(Server& server) : server(server) {
    call([this] { writer->open(); });
    call([this] { beginOfData = reserve(1) - 128 - kFrameHeader - 8 - 48; });
  }
  ~Client() { server.livesFor(1); }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  void makeSomeCall(FuzzedDataProvider& input) {
    server.livesFor(input.PickValueInArray({0, 0, 0, 1, 1, 2}));
    const unsigned long sizes[] = {0, 1, 100, 5000, 131072, orvane::test::kLargestRecord, kNoData};
    const unsigned long size = input.PickValueInArray(sizes);
    switch (input.ConsumeIntegralInRange<int>(0, 9)) {
      case 0:
        return call([this] { writer->open(); });
      case 1:
        return call([this] { writer->close(); });
      case 2:
        return call([this] { writer->stop(true); });
      case 3:
        return call([this] { writer->endSegment(); });
      case 4:
        return writer->setSegmentAlg(kOrvaneSegUnbounded, 1, 2, 3);
      case 5:
        writer.reset();
        writer = newWriter();
        return;
      case 6:
        return call([&] {
          fill(reserve(size), size);
          writer->commit(size - input.ConsumeIntegralInRange<unsigned long>(0, size));
        });
      default:
        return call([&] { writer->writeSegment(data().data(), size); });
    }
  }

 private:
  template <typename Function>
  void call(const Function& function) {
    try {
      function();
    } catch (const Ox_ErrnoException& e) {
      REQUIRE(e.status() != 0 && server.mayThrow(e.status()));
      REQUIRE(e.message().size() <= 200);
    }
  }

  unsigned char* reserve(unsigned long size) {
    unsigned char* const place = writer->reserve(size);
    if (beginOfData != nullptr) {
      REQUIRE(place >= beginOfData && place + size <= beginOfData + kRing + kRing / 4);
    }
    return place;
  }

  static void fill(unsigned char* place, unsigned long size) { std::memset(place, 'x', size); }
  static const Bytes& data() {
    static const Bytes bytes(kNoData, 'x');
    return bytes;
  }
  std::unique_ptr<RingWriter> newWriter() const {
    return std::make_unique<RingWriter>("stream", server.producer, 1, 0, false);
  }

  Server& server;
  unsigned char* beginOfData = nullptr;
  std::unique_ptr<RingWriter> writer = newWriter();
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  FuzzedDataProvider input(data, size);
  Server server;
  std::optional<Scribbler> scribbler;
  Client client(server);
  while (input.remaining_bytes() > 0) {
    scribbler.reset();
    server.answer(input);
    const bool onceBefore = input.ConsumeBool();
    std::vector<Change> changes = server.changes(input);
    scribbler.emplace(std::move(changes), server.counter(), onceBefore);
    for (int calls = input.ConsumeIntegralInRange<int>(0, 7); calls >= 0; --calls) {
      client.makeSomeCall(input);
      server.checkFrames();
    }
  }
  return 0;
}
