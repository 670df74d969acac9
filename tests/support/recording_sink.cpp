#include "support/recording_sink.hpp"

#include <array>
#include <mutex>
#include <ostream>
#include <utility>

namespace orvane::test {
namespace {

std::mutex mutex;
std::vector<Line> lines;

void record(ox::Kind kind, int code, const char* text) {
  std::lock_guard lock(mutex);
  lines.push_back({kind, code, text});
}

}  // namespace

std::ostream& operator<<(std::ostream& stream, const Line& line) {
  static constexpr std::array kNames = {"info",  "auth",  "warning", "error",
                                        "trace", "enter", "leave"};
  return stream << kNames.at(static_cast<std::size_t>(line.kind)) << ' ' << line.code << " \""
                << line.text << '"';
}

RecordingSink::RecordingSink(Tracing tracing) {
  take();
  ox::setSink(record);
  ox::setTracing(tracing == Tracing::on);
}

RecordingSink::~RecordingSink() {
  ox::setTracing(false);
  ox::setSink(nullptr);
}

std::vector<Line> RecordingSink::take() {
  std::lock_guard lock(mutex);
  return std::exchange(lines, {});
}

}  // namespace orvane::test
