#pragma once

namespace tool {

// Writes what standard output still holds. Throws Failure unless all of it was written.
void requireOutput();

// Where a standard file was closed, the first file that the command opens would take its number,
// and its output, or what it reads, would be another file's. Such a number is given to one that can
// be neither read (0) nor written (1, 2).
void occupyStandardFiles();

}  // namespace tool
