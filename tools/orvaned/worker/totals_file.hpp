#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "geometry.hpp"
#include "shm/fd.hpp"
#include "shm/totals.hpp"

namespace orvaned {

// The file with a pair's totals, created and removed with this object. It stays the server's own;
// every user of the pair may read it.
class TotalsFile {
 public:
  // Throws std::runtime_error, and then leaves no file. `readers` is the group of a leased pair's
  // producer, which may read the file even if the mode does not allow it.
  TotalsFile(const std::string& queueName, const Geometry& geometry, std::optional<gid_t> readers,
             std::optional<uid_t> user = {});
  ~TotalsFile();
  TotalsFile(const TotalsFile&) = delete;
  TotalsFile& operator=(const TotalsFile&) = delete;

  // From now on another process removes the file.
  void leaveName() { removesName = false; }

  tool::Totals& totals() { return *mapped; }

 private:
  void allocate();
  void giveTo(std::optional<gid_t> readers, const Geometry& geometry);

  const std::string path;
  tool::Fd file;  // its lock shows that this process lives
  tool::Totals* mapped = nullptr;
  bool removesName = true;
};

// Fills in what does not change, in the worker.
void publish(tool::Totals& totals, std::uint64_t version, std::optional<uid_t> user);

}  // namespace orvaned
