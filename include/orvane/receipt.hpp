#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "orvane/export.hpp"

namespace orvane {

// The way in which a stream ended. Receipts and manifests show the texts in quotes.
enum class StreamEnd {
  closed,   // "closed": the producer closed it; the stream is whole
  stopped,  // "stopped": the producer gave it up
  cutOff,   // "cut-off": another open record came, or its producer or its server ended
  broken    // "broken": a part of it was lost or could not be stored
};

// The server's report on what it stored of one stream. The server sends it over a lease's
// connection, writes it into the stream's manifest, and puts it into the response to the stream's
// last batch:
//   receipt stream=20261121T023224-4711_0 records=12 bytes=1048576 segments=2 end=closed
struct Receipt {
  std::string stream;          // the id that the server gave to the stream; it has no blanks
  std::uint64_t records = 0;   // the stored records of segment data and of the producer's types
  std::uint64_t bytes = 0;     // the bytes of those records' data
  std::uint64_t segments = 0;  // the segments that have data
  StreamEnd end = StreamEnd::closed;
};

inline bool operator==(const Receipt& a, const Receipt& b) {
  return a.stream == b.stream && a.records == b.records && a.bytes == b.bytes &&
         a.segments == b.segments && a.end == b.end;
}
inline bool operator!=(const Receipt& a, const Receipt& b) {
  return !(a == b);
}

// These functions write the text form and read it. parseReceipt returns nothing unless the text is
// exactly one receipt. Link orvane::lease.
ORVANE_API std::string textOf(const Receipt& receipt);
ORVANE_API std::string textOf(StreamEnd end);
ORVANE_API std::optional<Receipt> parseReceipt(std::string_view text);

}  // namespace orvane
