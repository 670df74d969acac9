#pragma once

#include <iosfwd>
#include <string>
#include <vector>

#include "ox/sink.hpp"

namespace orvane::test {

// One line as a sink receives it.
struct Line {
  ox::Kind kind;
  int code;
  std::string text;

  bool operator==(const Line&) const = default;
};
std::ostream& operator<<(std::ostream& stream, const Line& line);

inline Line traced(std::string text) {
  return {ox::Kind::trace, 0, std::move(text)};
}
inline Line entered(std::string operation) {
  return {ox::Kind::enter, 0, std::move(operation)};
}
inline Line left(std::string operation) {
  return {ox::Kind::leave, 0, std::move(operation)};
}

// Collects the platform's lines while it lives; one at a time. Then the default sink is back and
// tracing is off.
class RecordingSink {
 public:
  enum class Tracing { off, on };

  explicit RecordingSink(Tracing tracing = Tracing::off);
  ~RecordingSink();
  RecordingSink(const RecordingSink&) = delete;
  RecordingSink& operator=(const RecordingSink&) = delete;

  // The lines since the last call.
  std::vector<Line> take();
};

}  // namespace orvane::test
