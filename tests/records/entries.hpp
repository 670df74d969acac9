#pragma once

#include <cstdint>
#include <sstream>
#include <string>

#include "orvane/batch.hpp"
#include "support/wire.hpp"

namespace orvane::test {

// An entry for this data, which has to stay where it is.
inline ShmBatch::Entry entryOf(std::uint32_t type, const Bytes& data) {
  pvk_shm_message_t header;
  header.type = type;
  header.len = static_cast<std::uint32_t>(data.size());
  return {header, data.data()};
}

inline std::string textOf(const ShmBatch::Entry& entry) {
  std::ostringstream text;
  text << entry;
  return text.str();
}

}  // namespace orvane::test
