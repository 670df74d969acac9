#include "replaced_clock.hpp"

namespace {

std::optional<std::time_t> clockMoment;

}  // namespace

namespace orvane::test {

void setClock(std::optional<std::time_t> moment) {
  clockMoment = moment;
}

std::time_t realTime() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return now.tv_sec;
}

}  // namespace orvane::test

// Takes the place of the C library's for everything that this executable loads.
extern "C" __attribute__((visibility("default"))) std::time_t time(std::time_t* result) noexcept {
  const std::time_t now = clockMoment.value_or(orvane::test::realTime());
  if (result != nullptr) {
    *result = now;
  }
  return now;
}
