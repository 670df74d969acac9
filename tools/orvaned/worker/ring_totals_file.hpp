#pragma once

#include <sys/types.h>

#include <cstdint>

#include "shm/fd.hpp"
#include "shm/totals.hpp"

namespace orvaned {

// The totals of a ring's lease, in a file in memory that has no name. The supervisor makes the file
// and hands it out to those who may see the lease; only the lease's worker can write it, because
// the file is sealed once the worker has mapped it.
class RingTotalsFile {
 public:
  // The file, still without content. Throws std::system_error.
  static tool::Fd newFile();

  // Can nobody make a new mapping of the file that writes?
  static bool isSealed(int file);

  // Maps and seals the file, in the worker. Throws std::system_error.
  RingTotalsFile(const tool::Fd& file, std::uint64_t ringBytes, uid_t user);
  ~RingTotalsFile();
  RingTotalsFile(const RingTotalsFile&) = delete;
  RingTotalsFile& operator=(const RingTotalsFile&) = delete;

  tool::RingTotals& totals() { return *mapped; }

 private:
  tool::RingTotals* mapped;
};

}  // namespace orvaned
