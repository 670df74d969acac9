#pragma once

#include <sys/types.h>

#include <memory>
#include <optional>
#include <string>

#include "supervisor/process_context.hpp"

namespace orvaned {

// A process that searches /dev/shm for the queue pairs of dead servers. It holds their locks until
// release(), so that no other server cleans up as well. Nothing here throws or blocks.
class DeadRunSearch {
 public:
  struct DeadPair {
    std::string queue;
    std::optional<uid_t> user;  // who may own the pair's files, apart from the server
  };

  explicit DeadRunSearch(const ProcessContext& context);

  // Returns the pairs one after another; nothing if none is found yet, or there are no more.
  std::optional<DeadPair> next();

  // Has it found all of them?
  bool isComplete() const { return complete; }

  // To be called when all pairs are removed: the process removes the locks, and ends.
  void release();
  bool isOver() { return !process || process->ended(); }

  // There may be more pairs later: a server is still dying, or the search failed.
  bool isToBeRepeated() const { return repeat; }

  // Readable when next() has something to return; -1 after release().
  int fd() const { return socket.get(); }

 private:
  std::unique_ptr<Child> process;
  tool::Fd socket;
  bool complete = false;
  bool repeat = false;
};

}  // namespace orvaned
