#pragma once

#include <string>

#include "shm/fd.hpp"

namespace forward {

// The marks of a store (store_format/forward_mark.hpp), written.
class Marks {
 public:
  // Makes the folder if it is missing. Throws std::runtime_error, also if another process has the
  // marks of this store: two clusters would each get a part of the streams.
  explicit Marks(const std::string& store);

  bool has(const std::string& id) const;

  // Marks a stream; the mark is on the disk when this returns. Throws std::runtime_error.
  void add(const std::string& id) const;

  // Removes the marks of streams that are not in the store any more.
  void removeStale() const;

 private:
  std::string store;
  tool::Fd folder;
};

}  // namespace forward
