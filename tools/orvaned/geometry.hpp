#pragma once

#include <sys/types.h>

#include <cstddef>

namespace orvaned {

struct Geometry {
  std::size_t messages;     // of the send queue
  std::size_t messageSize;  // in bytes
  mode_t mode;              // of both queues; who may open them for writing may be a producer
};

}  // namespace orvaned
