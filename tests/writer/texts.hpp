#pragma once

#include "support/recording_sink.hpp"

namespace orvane::test {

constexpr const char* kNotOpen = "Could not write segment data because ShmWriter is not open";

// Of each record that benchmark mode drops.
inline const Line kWarning = {
    ox::Kind::warning, -1,
    "write_data: ORVANE_PERF_BENCHMARK_ENABLED is set to 1. This backup will "
    "fail. Dumping data.."};

}  // namespace orvane::test
