#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "load.hpp"
#include "queue_link.hpp"

namespace bench {

using Clock = std::chrono::steady_clock;

// What is measured: `produce` sends records over the link for so long, and then a close record. The
// consumer reads what a message holds: a batch, one record, or a batch that stays in its ring.
struct Form {
  std::string name;
  enum class Messages { batches, records, inRing } messages;
  std::function<std::unique_ptr<Link>(const Geometry&, std::size_t capacity)> make;
  std::size_t largest;
  std::function<Sent(Link&, const Load&, std::size_t capacity, Clock::duration)> produce;
  std::string missing;
};

// orvane beside the bare queue, and each peer in both forms.
std::vector<Form> allForms();

struct Speed {
  double bytesPerSecond;  // of data
  double cpuPerGb;        // seconds that both processes used for 10^9 bytes of data
};

// Nothing where not one record fits a message.
std::optional<Speed> measure(const Form& form, const Geometry& geometry, const Load& load,
                             Work work, Clock::duration time);

}  // namespace bench
