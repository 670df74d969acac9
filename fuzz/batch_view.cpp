// Hostile bytes into the checked reader, and whatever it accepts into the trusting one.
//
// Reaches what no writer produces: counts, lengths and magic words that do not fit the size. The
// input lies at the end of its own heap block, so a read past it is seen.

#include <orvane/orvane.hpp>

#include <algorithm>
#include <memory>
#include <queue>

#include "require.hpp"

using orvane::BatchView;
using orvane::ShmBatch;

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  const std::unique_ptr<unsigned char[]> bytes(new unsigned char[size]);
  std::copy_n(data, size, bytes.get());
  const unsigned char* const end = bytes.get() + size;
  try {
    const BatchView view(bytes.get(), size);
    std::queue<ShmBatch::Entry> trusted;
    ShmBatch::getEntriesFromBuffer(trusted, bytes.get(), size);
    REQUIRE(trusted.size() == view.size());
    for (const ShmBatch::Entry& entry : view) {
      REQUIRE(entry == trusted.front());
      REQUIRE(entry.data == trusted.front().data);
      if (entry.header.len > 0) {
        REQUIRE(entry.data > bytes.get());
        REQUIRE(entry.data <= end &&
                entry.header.len <= static_cast<std::size_t>(end - entry.data));
      } else {
        REQUIRE(entry.data == nullptr);
      }
      trusted.pop();
    }
    REQUIRE(trusted.empty());
  } catch (const Ox_ErrnoException& refused) {
    REQUIRE(refused.status() == orvane::kStatusInvalidArgument ||
            refused.status() == orvane::kStatusCorruptMagic);
    REQUIRE(!refused.message().empty() && refused.detail().empty());
  }
  return 0;
}
