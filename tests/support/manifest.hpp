#pragma once

#include <cstdint>
#include <string>

namespace orvane::test {

// The CRC-32 of gzip, computed bit by bit.
std::uint32_t crc32Of(const std::string& bytes);

// The text with the last line that a manifest of format 2 has.
std::string withChecksum(const std::string& lines);

// A finished manifest, easy to compare: its reasons are not escaped, and in place of what differs
// in each run, of the lines begun, ended and crc32, only that of the first one is left as
// "begun=TIME". The other two must be there and be right; otherwise the text begins with what is
// wrong. One of format 1 is returned as it is.
std::string plainManifest(const std::string& manifest);

}  // namespace orvane::test
