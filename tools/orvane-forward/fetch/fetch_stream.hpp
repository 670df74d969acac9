#pragma once

#include "fetch_options.hpp"

namespace forward {

// `orvane fetch`. Throws Failure, and what the cluster's refusal is reported with.
void fetchStream(const tool::FetchOptions& options);

}  // namespace forward
