#include "shm/utc.hpp"

#include <unistd.h>

#include <cstdio>

namespace tool {
namespace {

// "2026-11-21T02:32:24"
std::string secondsText(std::time_t time) {
  std::tm utc = {};
  gmtime_r(&time, &utc);
  char text[64] = {};  // more than the largest year needs
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &utc);
  return text;
}

}  // namespace

std::string utcText(std::time_t time) {
  return secondsText(time) + "Z";
}

std::string utcText(const std::timespec& time) {
  char milliseconds[sizeof(".123Z")] = {};
  std::snprintf(milliseconds, sizeof milliseconds, ".%03uZ",
                static_cast<unsigned>(time.tv_nsec / 1000000) % 1000);
  return secondsText(time.tv_sec) + milliseconds;
}

std::string utcTextForNames(std::time_t time) {
  std::string text = secondsText(time);
  std::erase_if(text, [](char c) { return c == '-' || c == ':'; });
  return text;
}

std::string timeAndProcess() {
  return utcTextForNames(std::time(nullptr)) + "-" + std::to_string(getpid());
}

}  // namespace tool
