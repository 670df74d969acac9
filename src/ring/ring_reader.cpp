#include "orvane/ring_reader.hpp"

#include <cstring>
#include <new>
#include <optional>

#include "orvane/status.hpp"
#include "records/batch_check.hpp"
#include "records/failure.hpp"
#include "ring/hand_over.hpp"
#include "ring/memory.hpp"
#include "ring/system.hpp"

namespace orvane {

namespace {

using namespace ring;  // NOLINT(google-build-using-namespace): this is the ring's own source

[[noreturn]] void failBroken(const char* what) {
  fail(kStatusCorruptMagic, "The producer broke the rules of its ring: ", what);
}

// Reads once, whatever the producer does meanwhile.
std::uint64_t readOnce(const unsigned char* p) {
  return __atomic_load_n(reinterpret_cast<const std::uint64_t*>(p), __ATOMIC_RELAXED);
}

template <std::size_t kSize>
struct PrivateCopy {
  unsigned char bytes[kSize];
};

// The same for more bytes. For all that the compiler knows, the asm changes the copy, so it cannot
// go back to the producer's bytes.
template <std::size_t kSize>
PrivateCopy<kSize> copyOnce(const unsigned char* p) {
  PrivateCopy<kSize> copy = {};
  std::memcpy(copy.bytes, p, kSize);
  asm volatile("" : "+m"(copy));
  return copy;
}

}  // namespace

struct RingReader::State {
  explicit State(std::uint64_t bytes)
      : bytes(checkedRingSize(bytes)),
        file(makeFile("orvane-ring", kPage + bytes)),
        ownFile(makeFile("orvane-ring-server", sizeof(ServerPage))),
        ownPage(ownFile.get(), 0, sizeof(ServerPage), true),
        page(file.get(), 0, kPage, false),
        data(file.get(), kPage, bytes, false, true),
        own(*new (ownPage.get()) ServerPage),
        end(own.counters, reinterpret_cast<const ProducerPage*>(page.get())->counters, bytes),
        copy(new unsigned char[largestFrame(bytes)]) {
    own.identity.bytes = bytes;
    {
      const Mapping first(file.get(), 0, kPage, true);  // the producer's page is written only here
      (new (first.get()) ProducerPage)->identity.bytes = bytes;
    }
    seal(file, Sealed::size);
    seal(ownFile, Sealed::sizeAndWriting);
  }

  Batch receive();
  Batch frameInPlace();
  bool next(ShmBatch::Entry& entry);
  bool write(const pvk_shm_response_t& response);
  void release();

  const std::uint64_t bytes;
  const File file;
  const File ownFile;
  const Mapping ownPage;
  const Mapping page;
  const Mapping data;
  ServerPage& own;
  ServerEnd<LinuxSystem> end;
  const std::unique_ptr<unsigned char[]> copy;
  Batch inPlace = {};                       // the batch that next() reads
  std::optional<layout::BatchCheck> check;  // of its headers, once next() has begun
  const unsigned char* position = nullptr;  // of its next header
  std::uint64_t frames = 0;
  std::uint64_t inHand = 0;  // bytes of the frame that is not answered yet
  std::uint64_t answers = 0;
  std::optional<pvk_shm_response_t> pending;  // an error for which there is no room
};

RingReader::RingReader(std::uint64_t bytes) : state(std::make_unique<State>(bytes)) {}
RingReader::~RingReader() = default;

int RingReader::producersFile() const {
  return state->file.get();
}
int RingReader::serversFile() const {
  return state->ownFile.get();
}
std::uint64_t RingReader::waiting() const {
  state->end.look();  // receive() reports a broken rule
  return state->end.filled();
}

RingReader::Waits RingReader::producersWaits() const {
  const auto& producer = reinterpret_cast<const ProducerPage*>(state->page.get())->counters;
  constexpr auto relaxed = std::memory_order_relaxed;
  return {producer.blocked.load(relaxed), producer.nap.load(relaxed) / 2};
}

RingReader::Batch RingReader::receive() {
  return state->receive();
}

RingReader::Batch RingReader::State::receive() {
  const Batch batch = frameInPlace();
  if (batch.data == nullptr) {
    return {};
  }
  std::memcpy(copy.get(), batch.data, batch.size);
  return {copy.get(), batch.size};
}

bool RingReader::receiveInPlace() {
  const Batch batch = state->frameInPlace();
  if (batch.data == nullptr) {
    return false;
  }
  state->inPlace = batch;
  state->check.reset();
  return true;
}

bool RingReader::next(ShmBatch::Entry& entry) {
  return state->next(entry);
}

bool RingReader::State::next(ShmBatch::Entry& entry) {
  if (!check) {
    const auto metaData = copyOnce<layout::kMetaDataSize>(inPlace.data);
    check.emplace(metaData.bytes, inPlace.size);
    position = inPlace.data + layout::kMetaDataSize;
  }
  if (!check->expectHeader()) {
    return false;
  }
  const auto header = copyOnce<layout::kHeaderSize>(position);
  const std::size_t size = check->take(header.bytes);
  layout::readHeader(entry.header, header.bytes);
  entry.data = entry.header.len > 0 ? position + layout::kHeaderSize : nullptr;
  position += size;
  return true;
}

// The next frame's batch, where it is.
RingReader::Batch RingReader::State::frameInPlace() {
  if (pending) {
    if (!write(*pending)) {
      return {};
    }
    pending.reset();
    release();
  }
  if (!end.look()) {
    failBroken("its tail is not where it can be");
  }
  if (end.filled() == 0) {
    return {};
  }
  const unsigned char* const frame = data.get() + (end.head() & (bytes - 1));
  const std::uint64_t size = readOnce(frame);
  if (size > largestFrame(bytes) - kFrameHeader || wholeLines(kFrameHeader + size) > end.filled()) {
    failBroken("a frame is larger than what was handed over or may be");
  }
  if (readOnce(frame + sizeof size) != frames + 1) {
    failBroken("a frame is missing");
  }
  ++frames;
  inHand = wholeLines(kFrameHeader + size);
  return {frame + kFrameHeader, size};
}

void RingReader::answer(const pvk_shm_response_t& response) {
  if (!state->write(response) && response.status != 0) {
    state->pending = response;
    return;
  }
  state->release();
}

// The frame is released after its answer was written: a producer that sees its last frame released
// finds all answers.
void RingReader::State::release() {
  end.release(end.head() + inHand);
  inHand = 0;
}

bool RingReader::State::write(const pvk_shm_response_t& response) {
  const auto& producer = reinterpret_cast<const ProducerPage*>(page.get())->counters;
  if (answers - producer.answersTaken.load(std::memory_order_acquire) >= kAnswers) {
    return false;
  }
  std::memcpy(&own.answers[answers % kAnswers], &response, sizeof response);
  own.counters.answersWritten.store(++answers, std::memory_order_release);
  return true;
}

void RingReader::wait() {
  if (state->pending) {
    const timespec moment = {0, 5'000'000};
    nanosleep(&moment, nullptr);  // the producer does not wake this side when it reads an answer
    return;
  }
  if (!state->end.await()) {
    failBroken("its tail is not where it can be");
  }
}

}  // namespace orvane
