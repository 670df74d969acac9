#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "marks.hpp"
#include "shm/fd.hpp"

namespace forward {

// Finds the streams of a store that have ended and are not marked. The kernel reports new ones
// (inotify), so that a store of many streams costs nothing while nothing happens in it. A look at
// the whole store finds what was there before, or what was not reported.
class StoreWatch {
 public:
  // Throws std::runtime_error if the store cannot be read.
  StoreWatch(const std::string& store, const Marks& marks);

  // Readable when something has changed; -1 if the kernel reports nothing.
  int fd() const { return notifications.get(); }

  // What a look at the store has found, in the order of the ids, without those of a set.
  struct Found {
    std::vector<std::string> ids;  // at most `most`
    std::uint64_t count = 0;       // of all
  };
  Found lookAround(std::size_t most, const std::set<std::string>& without = {});

  // The same for all that have ended, marked or not, from the first id after `cursor` on.
  Found endedAfter(const std::string& cursor, std::size_t most) const;

  // Returns the streams that have ended since the last call. Sets `isIncomplete` if the kernel has
  // lost some, or a watch could not be set: then the next look finds them.
  std::vector<std::string> changes(bool& isIncomplete);

  // How many streams are watched until they end.
  std::size_t watched() const { return open.size(); }

 private:
  bool hasEnded(const std::string& id) const;
  bool watch(const std::string& id);
  void unwatch(const std::string& id);

  std::string store;
  const Marks& marks;
  tool::Fd notifications;
  int storeWatch = -1;
  std::map<int, std::string> open;         // watch and id
  std::map<std::string, int> watchOfOpen;  // the same, by id
};

}  // namespace forward
