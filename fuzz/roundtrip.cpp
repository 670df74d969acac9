// Sequences of valid and invalid calls on a batch, against a model of what it must hold.
//
// Reaches the writer's side: full batches, refused entries, clear and reuse, every entry read back
// by index, by the trusting reader and by the checked one.

#include <fuzzer/FuzzedDataProvider.h>
#include <orvane/orvane.hpp>

#include <algorithm>
#include <queue>
#include <vector>

#include "require.hpp"
#include "some_header.hpp"

using orvane::BatchView;
using orvane::pvk_shm_message_t;
using orvane::ShmBatch;

namespace {

struct Model {
  pvk_shm_message_t header;
  std::vector<unsigned char> data;
};

void requireSame(const ShmBatch::Entry& entry, const Model& model) {
  REQUIRE(entry.header == model.header);
  REQUIRE((entry.data == nullptr) == model.data.empty());
  REQUIRE(std::equal(model.data.begin(), model.data.end(), entry.data));
}

void requireHolds(const ShmBatch& batch, const std::vector<Model>& models) {
  REQUIRE(batch.getNumEntries() == models.size());
  REQUIRE(batch.empty() == models.empty());
  const BatchView view(batch.getRaw(), batch.getRawSize());
  std::queue<ShmBatch::Entry> trusted;
  ShmBatch::getEntriesFromBuffer(trusted, batch.getRaw(), batch.getRawSize());
  REQUIRE(trusted.size() == models.size());
  BatchView::Iterator viewed = view.begin();
  for (std::size_t i = 0; i < models.size(); ++i, ++viewed, trusted.pop()) {
    requireSame(batch.getEntry(i), models[i]);
    requireSame(trusted.front(), models[i]);
    requireSame(*viewed, models[i]);
  }
  REQUIRE(viewed == view.end());
}

void append(ShmBatch& batch, std::vector<Model>& models, FuzzedDataProvider& input) {
  Model model{someHeader(input),
              input.ConsumeBytes<unsigned char>(input.ConsumeIntegralInRange<std::size_t>(0, 300))};
  model.header.len = static_cast<std::uint32_t>(model.data.size());
  const bool withData = input.ConsumeBool();
  const ShmBatch::Entry entry(model.header, withData ? model.data.data() : nullptr);
  const bool hasRoom = batch.canStore(entry);
  const bool valid = withData || model.header.len == 0;
  try {
    batch.pushBack(entry);
    REQUIRE(hasRoom && valid);
    models.push_back(model);
  } catch (const Ox_ErrnoException& refused) {
    REQUIRE(refused.status() == (hasRoom ? orvane::kStatusInvalidArgument : orvane::kStatusNoRoom));
    REQUIRE(!hasRoom || !valid);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  FuzzedDataProvider input(data, size);
  ShmBatch batch(input.ConsumeIntegralInRange<unsigned long>(8, 2000));
  std::vector<Model> models;
  while (input.remaining_bytes() > 0) {
    if (input.ConsumeIntegralInRange<int>(0, 15) == 0) {
      batch.clear();
      models.clear();
    } else {
      append(batch, models, input);
    }
  }
  requireHolds(batch, models);
  return 0;
}
