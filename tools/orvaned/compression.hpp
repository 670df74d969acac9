#pragma once

#include <functional>

namespace orvaned {

// How the data of segments is compressed.
struct Compression {
  int level = 0;                       // of zstd; 0: it is not
  std::function<void()> working = {};  // called now and then while much data is compressed
};

}  // namespace orvaned
