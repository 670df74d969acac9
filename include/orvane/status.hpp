#pragma once

#include "ox/errno_exception.hpp"  // what carries them
#include "ox/status.hpp"

namespace orvane {

// What the library itself throws in Ox_ErrnoException::status(). Two numbers stand for two causes
// each; the message tells them apart. Any other status is one that the server answered with.
constexpr ox_status_t kStatusNoRoom = 4;           // ShmBatch::pushBack: the batch is full
constexpr ox_status_t kStatusInvalidArgument = 9;  // a size, index, data pointer or timeout
constexpr ox_status_t kStatusTimedOut = 15;        // the send queue stayed full
constexpr ox_status_t kStatusCorruptMagic = 32;    // these bytes are no header or no batch
constexpr ox_status_t kStatusNotOpen = 44;         // segment operations need an open writer
constexpr ox_status_t kStatusWrongAlgorithm = 44;  // writeSegment takes segment states 0 and 1
constexpr ox_status_t kStatusSegmentTooLarge = 85;
constexpr ox_status_t kStatusDoesNotFit = 89;  // larger than an empty batch
constexpr ox_status_t kStatusNotHomogeneous = 89;

}  // namespace orvane
