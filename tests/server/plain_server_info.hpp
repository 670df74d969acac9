#pragma once

#include "orvane/server_info.hpp"

namespace orvane::test {

// Has what every record has, and no setting besides.
inline ServerInfo plain() {
  return {"s", "u", "p", "a", "c", "r", "k"};
}

}  // namespace orvane::test
