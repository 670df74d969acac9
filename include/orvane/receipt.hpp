#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "orvane/export.hpp"

namespace orvane {

// How a stream ended. Receipts and manifests use the words in quotes.
enum class StreamEnd {
  closed,   // "closed": by its producer; the stream is whole
  stopped,  // "stopped": by its producer, which gave it up
  cutOff,   // "cut-off": by another open record, or because its producer or its server ended
  broken    // "broken": something of it was lost or could not be stored
};

// What a server stored of one stream. It is sent over a lease's connection, written into the
// stream's manifest, and is the text of the response to the stream's last batch:
//   receipt stream=20261121T023224-4711_0 records=12 bytes=1048576 segments=2 end=closed
struct Receipt {
  std::string stream;          // the server's id for the stream; no blanks
  std::uint64_t records = 0;   // that were stored, of every type that carries data
  std::uint64_t bytes = 0;     // of those records' data
  std::uint64_t segments = 0;  // that have data
  StreamEnd end = StreamEnd::closed;
};

inline bool operator==(const Receipt& a, const Receipt& b) {
  return a.stream == b.stream && a.records == b.records && a.bytes == b.bytes &&
         a.segments == b.segments && a.end == b.end;
}
inline bool operator!=(const Receipt& a, const Receipt& b) {
  return !(a == b);
}

// The text form and back. A text that is not exactly one receipt gives nothing. Link orvane::lease.
ORVANE_API std::string textOf(const Receipt& receipt);
ORVANE_API std::string textOf(StreamEnd end);
ORVANE_API std::optional<Receipt> parseReceipt(std::string_view text);

}  // namespace orvane
