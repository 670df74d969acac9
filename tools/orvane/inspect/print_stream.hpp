#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "inspect/segment_printer.hpp"
#include "inspect/stream_manifest.hpp"

namespace tool {

struct PrintOptions {
  std::optional<std::uint64_t> segment;  // print only this one
  bool force = false;                    // print also what is damaged or not whole
};

// Gets what is wrong with a stream that is printed by force.
using Warn = std::function<void(const std::string&)>;

// Prints the data of a stored stream's segments, in order, to standard output. Throws Failure if
// the stream is not whole, before anything is printed, and if a segment is damaged, before its
// first byte is printed. Of a single segment only that one must be whole. With `force` nothing of
// this fails.
void printStream(const std::string& folder, const PrintOptions& options, const Warn& warn);

// Prints a segment that a manifest lists. Fails, or warns, if it is damaged or not whole.
void printSegment(const ListedSegment& segment, const std::string& folder,
                  const PrintOptions& options, SegmentPrinter& printer, const Warn& warn);

}  // namespace tool
