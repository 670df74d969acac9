#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "orvane/export.hpp"

namespace orvane {

// Any text as one word, as it stands in requests for leases and in manifests. Each blank, "%" and
// control character, 0x7f among them, becomes "%" and two upper-case hexadecimal digits. Bytes of
// 0x80 and more stay, so UTF-8 can be read.
//   escaped("daily backup")       // "daily%20backup"
//   unescaped("daily%20backup")   // "daily backup"
// Link orvane::lease.
ORVANE_API std::string escaped(std::string_view text);

// Returns nothing unless `word` is exactly what escaped() returns for some text.
ORVANE_API std::optional<std::string> unescaped(std::string_view word);

}  // namespace orvane
