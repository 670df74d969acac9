#pragma once

#include "ox/errno_exception.hpp"
#include "ox/status.hpp"

namespace orvane {

// The statuses that the library throws itself, in Ox_ErrnoException::status(). 44 and 89 have two
// causes each, which the exception's text distinguishes. Writers and leases also throw each status
// that the server answers with (server_status.hpp has those of orvaned).

// ShmBatch::pushBack: the batch has no room for the entry. Send the batch, clear it, and repeat.
constexpr ox_status_t kStatusNoRoom = 4;

// A size, an index or a timeout is out of range, or a data pointer is null although there is data.
constexpr ox_status_t kStatusInvalidArgument = 9;

// ShmWriter: the send queue stayed full for the whole timeout; the batch is kept, so flush again.
// Lease: the server did not answer in time; nothing is lost.
constexpr ox_status_t kStatusTimedOut = 15;

// The bytes are not a record's header, or not a batch.
constexpr ox_status_t kStatusCorruptMagic = 32;

// writeSegment or endSegment was called on a writer that is not open, or a Stream was written to
// after finish().
constexpr ox_status_t kStatusNotOpen = 44;

// writeSegment was called in a segment state other than 0 and 1; setSegmentAlg changes the state.
constexpr ox_status_t kStatusWrongAlgorithm = 44;

// The record has more than ShmWriter::getMaxSegmentSize() data bytes, and its segAlg is not
// kOrvaneSegUnbounded.
constexpr ox_status_t kStatusSegmentTooLarge = 85;

// The record is larger than an empty batch: send its data in parts.
constexpr ox_status_t kStatusDoesNotFit = 89;

// Reserved: no call throws it, because a stream may mix segment states.
constexpr ox_status_t kStatusNotHomogeneous = 89;

// Lease: no server listens at this path. Stream: no socket was given, and none or several were
// found.
constexpr ox_status_t kLeaseNoServer = 900;

// Lease, RingWriter and Stream: the server died, or it ended the lease. RingReader: there is no
// memory for a ring.
constexpr ox_status_t kLeaseLost = 901;

// Stream: the receipt is not that of the whole stream.
constexpr ox_status_t kStreamIncomplete = 902;

}  // namespace orvane
