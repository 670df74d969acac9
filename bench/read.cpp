// What it costs to take a received batch apart: the reader that trusts its writer, which fills a
// std::queue, beside BatchView, which checks everything first. One iteration reads a full batch and
// looks at every header.
#include <benchmark/benchmark.h>

#include <queue>

#include "load.hpp"
#include "queue_link.hpp"

namespace bench {
namespace {

using orvane::BatchView;
using orvane::ShmBatch;

std::vector<unsigned char> fullBatch(const Load& load) {
  std::vector<unsigned char> batch(load.batchSize(Geometry().messageSize));
  Packer packer(batch.data());
  for (std::size_t i = 0; i < batch.size() / load.recordSize(); ++i) {
    packer.add(load.header(i), load.data());
  }
  packer.finish();
  return batch;
}

template <typename Read>
void timeReading(benchmark::State& state, const Read& read) {
  const Load load(static_cast<std::size_t>(state.range(0)));
  const std::vector<unsigned char> batch = fullBatch(load);
  for ([[maybe_unused]] auto iteration : state) {
    benchmark::DoNotOptimize(read(batch));
  }
  state.SetItemsProcessed(state.iterations() *
                          static_cast<std::int64_t>(batch.size() / load.recordSize()));
}

void trusting(benchmark::State& state) {
  std::queue<ShmBatch::Entry> entries;
  timeReading(state, [&entries](Bytes batch) {
    ShmBatch::getEntriesFromBuffer(entries, batch.data(), batch.size());
    std::uint64_t sum = 0;
    for (; !entries.empty(); entries.pop()) {
      sum += entries.front().header.seqNo;
    }
    return sum;
  });
}

void batchView(benchmark::State& state) {
  timeReading(state, [](Bytes batch) {
    std::uint64_t sum = 0;
    for (const ShmBatch::Entry& entry : BatchView(batch.data(), batch.size())) {
      sum += entry.header.seqNo;
    }
    return sum;
  });
}

void sizes(benchmark::internal::Benchmark* benchmark) {
  benchmark->ArgName("data")->Arg(0)->Arg(64)->Arg(1024)->Arg(16384);
}

BENCHMARK(trusting)->Apply(sizes);
BENCHMARK(batchView)->Apply(sizes);

}  // namespace
}  // namespace bench

BENCHMARK_MAIN();
