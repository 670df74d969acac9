#pragma once

#include <array>
#include <cstdint>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "inspect/published_totals.hpp"

namespace tool {

// A total that grows, and its names in texts and in JSON.
struct Total {
  const char* text;
  const char* json;
  Totals::Number Totals::*number;
};

constexpr Total kTotals[] = {
    {"batches", "batches", &Totals::batches},
    {"records", "records", &Totals::records},
    {"bytes", "bytes", &Totals::bytes},
    {"segments", "segments", &Totals::segments},
    {"streams", "streams", &Totals::streams},
    {"bad batches", "badBatches", &Totals::badBatches},
    {"error answers", "errorAnswers", &Totals::errorAnswers},
};

constexpr double kNanoseconds = 1e9;  // in a second

// The totals at one moment.
struct Look {
  std::array<std::uint64_t, std::size(kTotals)> totals;
  std::uint64_t lastBatch;
  std::uint64_t unreadReceipts;
  std::optional<std::string> stream;  // none while the server changes it
  struct {
    std::uint64_t waiting;
    std::uint64_t producerBlocked;
    std::uint64_t producerSleeps;
  } ring;            // 0 for a queue
  std::uint64_t at;  // ns of CLOCK_MONOTONIC
};

struct MeasuredTotals {
  explicit MeasuredTotals(std::unique_ptr<PublishedTotals> published)
      : published(std::move(published)) {}

  std::unique_ptr<PublishedTotals> published;
  bool served = false;
  Look look = {};      // the last one
  double seconds = 0;  // between two looks; 0 if there was only one
  std::array<double, std::size(kTotals)> rates = {};
};

// Looks at all of them, and, if `interval` is not 0, once more after so many seconds.
void measure(std::vector<MeasuredTotals>& all, double interval);

}  // namespace tool
