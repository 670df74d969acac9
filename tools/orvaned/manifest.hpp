#pragma once

#include <cstdint>
#include <string>

#include "common/receipt.hpp"
#include "output_file.hpp"

namespace orvaned {

// What is kept of one segment. The algorithm and its parameters are those of its first record.
struct SegmentSummary {
  std::uint64_t number = 0;
  std::uint64_t records = 0;
  std::uint64_t bytes = 0;
  std::uint32_t algorithm = 0;
  std::uint32_t parameters[3] = {};
  std::string file;  // empty: the segment holds no data
};

struct StreamSummary {
  tool::Receipt receipt;
  std::uint64_t otherRecords = 0;
  std::uint64_t otherBytes = 0;  // of their data
  std::uint64_t skipped = 0;
  std::string reason;
};

// The file `manifest` in a stream's folder: text, one line a fact.
//   format=1
//   queue=orders
//   stream=20261121T023224-4711_0
//   segment number=0 records=2 bytes=9 algorithm=1 parameters=7,8,9 file=segment-000000
//   segment number=1 records=0 bytes=0 algorithm=1 parameters=7,8,9 file=-
//   segment number=1 records=1 bytes=3 algorithm=0 parameters=0,0,0 file=segment-000001.part
//   other-records=1 bytes=5
//   records=4
//   bytes=17
//   skipped=0
//   end=cut-off
//   reason=the server was stopped
// A segment without data has no file; the next one may have the same number. A file that still ends
// in .part is that of a segment which was not ended. `skipped` counts the sequence numbers that the
// producer used up without a record that came here. The reason is the rest of the file; empty when
// the producer ended the stream.
//
// The lines go to `manifest.part` as they come (a stream may have more segments than fit in memory)
// and the file is renamed when it is complete. Throws Ox_ErrnoException (kStoreFailed).
class Manifest {
 public:
  Manifest(const std::string& folder, const std::string& queue, const std::string& stream);

  void add(const SegmentSummary& segment);
  void flush() { file.flush(); }
  void finish(const StreamSummary& stream);

 private:
  void line(const std::string& text);

  const std::string path;
  OutputFile file;
};

}  // namespace orvaned
