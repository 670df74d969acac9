#pragma once

#include <cstdint>
#include <string>

#include "store/output_file.hpp"

namespace orvaned {

// Ends the frame of a compressed file whose server died, so that any program for zstd can read it.
// What is left of an incomplete last block is removed: its batch was not answered. Every other byte
// stays. Returns the bytes that the file has then. Throws Ox_ErrnoException (orvane::kStoreFailed)
// if the file cannot be written, and like tool::FrameReader.
std::uint64_t endFrame(StreamDirectory& folder, const std::string& name, Sync sync);

}  // namespace orvaned
