#include "process_name.hpp"

#include <unistd.h>

#include <ctime>

namespace orvaned {

std::string timeAndProcess() {
  const std::time_t now = std::time(nullptr);
  std::tm utc = {};
  gmtime_r(&now, &utc);
  char text[sizeof("20261121T023224")] = {};
  std::strftime(text, sizeof(text), "%Y%m%dT%H%M%S", &utc);
  return std::string(text) + "-" + std::to_string(getpid());
}

}  // namespace orvaned
