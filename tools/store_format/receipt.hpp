#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tool {

// How a stream ended: the words that receipts and manifests use.
constexpr char kClosed[] = "closed";    // by its producer, whole
constexpr char kStopped[] = "stopped";  // aborted by its producer
constexpr char kCutOff[] = "cut-off";   // by another open record or by the server's end
constexpr char kBroken[] = "broken";    // something of it was lost or could not be stored

// What the server stored of a stream: the text of its successful answers while no stream is open.
//   receipt stream=20261121T023224-4711_0 records=12 bytes=1048576 segments=2 end=closed
struct Receipt {
  std::string stream;
  std::uint64_t records = 0;   // kept, of every type that carries data
  std::uint64_t bytes = 0;     // of those records' data
  std::uint64_t segments = 0;  // that hold data
  std::string end;

  bool operator==(const Receipt&) const = default;
};

std::string textOf(const Receipt& receipt);

// Nothing when the text is not a whole receipt.
std::optional<Receipt> parseReceipt(std::string_view text);

}  // namespace tool
