#pragma once

#include "support/stream.hpp"

namespace orvane::test {

// Leaves an open stream in its second segment, after records whose type, length, state and
// parameters differ from those of the record that is sent next. Its number is 5.
inline void writeIntoSecondSegment(Stream& stream) {
  stream.writer.setSegmentAlg(kOrvaneSegUnbounded, 7, 8, 9);
  stream.write("a");
  stream.writer.endSegment();
  stream.write("b");
  stream.writer.flush_shm_buffer(0);
  stream.pair.discardAll();
  stream.writer.setSegmentAlg(kOrvaneSegBounded, 0, 0, 0);
}

}  // namespace orvane::test
