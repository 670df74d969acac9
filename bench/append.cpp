// What it costs to add a record to the batch, beside a plain memcpy of as many bytes. One iteration
// fills a batch, as large as orvaned's messages are by default. Sending it is not timed, but done
// in all cases, so that the caches are in the same state.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstring>

#include "load.hpp"
#include "queue_link.hpp"

namespace bench {
namespace {

using Clock = std::chrono::steady_clock;

constexpr unsigned kTimeout = 1;
const Geometry kOneMessage = {1, Geometry().messageSize};

// The batch's way out, to this process itself.
struct Fixture {
  explicit Fixture(const benchmark::State& state)
      : load(static_cast<std::size_t>(state.range(0))),
        records((kOneMessage.messageSize - orvane::ShmBatch::MetaData::kSerializedSize) /
                load.recordSize()) {}

  const Load load;
  const std::size_t records;  // that fill a batch
  AnsweringQueueLink link{kOneMessage, Wait::inQueue};
};

// Runs fill(), and then send() untimed.
template <typename Fill, typename Send>
void timeFilling(benchmark::State& state, const Fixture& fixture, const Fill& fill,
                 const Send& send) {
  for ([[maybe_unused]] auto iteration : state) {
    const auto begin = Clock::now();
    fill();
    state.SetIterationTime(std::chrono::duration<double>(Clock::now() - begin).count());
    send();
  }
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(fixture.records));
}

void copy(benchmark::State& state) {
  Fixture fixture(state);
  const std::vector<unsigned char> record(fixture.load.recordSize(), 1);
  unsigned char* const room = fixture.link.room();
  std::vector<unsigned char> batch(kOneMessage.messageSize);
  timeFilling(
      state, fixture,
      [&] {
        unsigned char* to = batch.data();
        for (std::size_t i = 0; i < fixture.records; ++i, to += record.size()) {
          std::memcpy(to, record.data(), record.size());
          benchmark::ClobberMemory();
        }
      },
      [&] {
        std::memcpy(room, batch.data(), batch.size());
        fixture.link.send(batch.size());
        fixture.link.receive();
      });
}

void writeData(benchmark::State& state) {
  Fixture fixture(state);
  orvane::ShmWriter writer("", fixture.link.name(), kTimeout, kTimeout, false);
  orvane::pvk_shm_message_t header = fixture.load.header(0);
  timeFilling(
      state, fixture,
      [&] {
        for (std::size_t i = 0; i < fixture.records; ++i) {
          ++header.seqNo;
          writer.write_data(&header, fixture.load.data().data(), kTimeout, false);
        }
      },
      [&] {
        writer.flush_shm_buffer(kTimeout);
        fixture.link.receive();
      });
}

void writeSegment(benchmark::State& state) {
  Fixture fixture(state);
  orvane::ShmWriter writer("", fixture.link.name(), kTimeout, kTimeout, false);
  writer.open();
  fixture.link.receive();
  orvane::ChannelWriter* base = &writer;
  benchmark::DoNotOptimize(base);
  timeFilling(
      state, fixture,
      [&] {
        for (std::size_t i = 0; i < fixture.records; ++i) {
          base->writeSegment(fixture.load.data().data(), fixture.load.data().size());
        }
      },
      [&] {
        writer.flush_shm_buffer(kTimeout);
        fixture.link.receive();
      });
}

void sizes(benchmark::internal::Benchmark* benchmark) {
  benchmark->UseManualTime()->ArgName("data")->Arg(0)->Arg(64)->Arg(1024)->Arg(16384)->Arg(131072);
}

BENCHMARK(copy)->Name("memcpy")->Apply(sizes);
BENCHMARK(writeData)->Apply(sizes);
BENCHMARK(writeSegment)->Apply(sizes);

}  // namespace
}  // namespace bench

BENCHMARK_MAIN();
