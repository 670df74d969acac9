#pragma once

#include <sys/types.h>

#include <cstddef>

namespace orvaned {

struct Geometry {
  std::size_t messages;     // of the send queue
  std::size_t messageSize;  // in bytes
  mode_t mode;              // of both queues: a user who may write to them may be a producer
};

}  // namespace orvaned
