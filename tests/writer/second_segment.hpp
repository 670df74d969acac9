#pragma once

#include "transports.hpp"

namespace orvane::test {

// Leaves an open stream in its second segment, after records whose type, length, state and
// parameters differ from those of the record that is sent next. Its number is 5.
template <typename Transport>
void writeIntoSecondSegment(Transport& stream) {
  stream.writer->setSegmentAlg(kOrvaneSegUnbounded, 7, 8, 9);
  stream.write("a");
  stream.writer->endSegment();
  stream.write("b");
  stream.flush();
  stream.discardAll();
  stream.writer->setSegmentAlg(kOrvaneSegBounded, 0, 0, 0);
}

}  // namespace orvane::test
