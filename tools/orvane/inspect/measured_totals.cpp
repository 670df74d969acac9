#include "inspect/measured_totals.hpp"

#include <algorithm>
#include <chrono>
#include <thread>
#include <utility>

namespace tool {
namespace {

Look lookAt(const PublishedTotals& published) {
  const Totals& totals = published.totals();
  Look look = {{}, totals.lastBatch.load(), totals.unreadReceipts.load(), streamOf(totals), {}, 0};
  if (const RingTotals* ring = published.ring()) {
    look.ring = {ring->waiting.load(), ring->producerBlocked.load(), ring->producerSleeps.load()};
  }
  for (std::size_t i = 0; i < look.totals.size(); ++i) {
    look.totals[i] = (totals.*kTotals[i].number).load(std::memory_order_relaxed);
  }
  look.at = monotonicNow();  // read last, so that the last batch is never later
  return look;
}

void setRates(MeasuredTotals& one, const Look& first) {
  one.seconds = static_cast<double>(one.look.at - first.at) / kNanoseconds;
  for (std::size_t i = 0; i < one.rates.size(); ++i) {
    one.rates[i] = static_cast<double>(one.look.totals[i] - first.totals[i]) / one.seconds;
  }
}

}  // namespace

// One look is enough if all servers are dead: their totals do not change any more.
void measure(std::vector<MeasuredTotals>& all, double interval) {
  for (MeasuredTotals& one : all) {
    one.served = one.published->isServed();
    one.look = lookAt(*one.published);
  }
  const auto isServed = [](const MeasuredTotals& one) { return one.served; };
  if (interval <= 0 || std::none_of(all.begin(), all.end(), isServed)) {
    return;
  }
  std::this_thread::sleep_for(std::chrono::duration<double>(interval));
  for (MeasuredTotals& one : all) {
    if (one.served) {
      const Look first = std::exchange(one.look, lookAt(*one.published));
      setRates(one, first);
    }
  }
}

}  // namespace tool
