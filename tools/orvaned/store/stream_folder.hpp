#pragma once

#include <cstdint>
#include <memory>
#include <orvane/orvane.hpp>
#include <string>

#include "store/manifest_file.hpp"
#include "store/output_file.hpp"
#include "store/segment_file.hpp"
#include "store_format/zstd.hpp"

namespace orvaned {

// The folder of one stream:
//   segment-000000   the data of a segment, under its final name once the segment has ended;
//                    segment-000000.zst if it is compressed (segment_file.hpp)
//   other-records    records of other types: 48-byte header and data, as they came
//   manifest         the list of it all (manifest_file.hpp), once the stream has ended
// Stores every record that it gets; StreamState checks them before. With Sync::segment, a segment
// that has ended is finished (segment_finish.hpp) while the next one is stored; the end of that one
// and the end of the stream wait for it. Throws Ox_ErrnoException
// (orvane::kStoreFailed); the stream can then only be ended as broken.
class StreamFolder {
 public:
  // If `folder` is null, the object keeps nothing and only counts. If `compressor` is not null, no
  // other object uses it meanwhile.
  StreamFolder(std::unique_ptr<StreamDirectory> folder, const StreamHead& head, Sync sync,
               tool::Compressor* compressor = nullptr);

  void storeSegmentData(const orvane::ShmBatch::Entry& entry);
  void endSegment(const orvane::pvk_shm_message_t& header);
  void storeOther(const orvane::ShmBatch::Entry& entry);

  // Passes to the system what was stored so far; with Sync::always, to the disk. Fails if a segment
  // could not be finished in the background.
  void flush();

  // Ends the stream. Closing it also ends its last segment; otherwise that segment stays marked as
  // unfinished.
  void end(orvane::StreamEnd how, const std::string& reason, std::uint64_t skipped);

  const std::string& stream() const { return summary.receipt.stream; }

  // What was stored; valid after end().
  const orvane::Receipt& receipt() const { return summary.receipt; }

 private:
  struct Segment {
    Segment(StreamDirectory* folder, const orvane::pvk_shm_message_t& first, Sync sync,
            tool::Compressor* compressor);
    SegmentSummary line(std::string fileName) const;

    SegmentSummary summary;
    SegmentFile file;
  };

  void begin(const orvane::pvk_shm_message_t& first);
  void settle();
  bool startFinish();
  void takeFinishResult(bool wait);
  void awaitFinish() { takeFinishResult(true); }
  void finishSegment();
  void abandon(const Segment& ended);
  void list(const Segment& ended, std::string fileName);
  void finishManifest(const std::string& reason, std::uint64_t skipped);

  const std::unique_ptr<StreamDirectory> folder;
  const Sync sync;
  tool::Compressor* const compressor;
  ManifestFile manifest;
  bool manifestTried = false;
  OutputFile other;
  std::unique_ptr<Segment> segment;
  std::unique_ptr<Segment> finishing;  // the one before, in the background
  StreamSummary summary;               // of what has ended so far
};

// Appends a record in wire form.
void appendRecord(OutputFile& file, const orvane::ShmBatch::Entry& entry);

}  // namespace orvaned
