#pragma once

#include <sys/types.h>

#include <memory>
#include <optional>
#include <string>

#include "supervisor/process_context.hpp"

namespace orvaned {

// A process that looks for what dead servers left in /dev/shm. It holds their locks until
// release(), so that no other server cleans up as well. Nothing here throws or blocks.
class DeadRunSearch {
 public:
  struct Left {
    std::string queue;
    std::optional<uid_t> user;  // whose files the pair's may be, besides the server's
  };

  explicit DeadRunSearch(const ProcessContext& context);

  // What the process found, one pair after another. Nothing: not yet, or no more.
  std::optional<Left> next();

  // Has it found all?
  bool isComplete() const { return complete; }

  // All pairs are gone: the process removes the locks, and ends.
  void release() { socket.reset(); }
  bool isOver() { return !process || process->ended(); }

  // There may be more later: a server is still dying, or the search failed.
  bool isToBeRepeated() const { return repeat; }

  // Readable when there is something; -1 after release().
  int fd() const { return socket.get(); }

 private:
  std::unique_ptr<Child> process;
  tool::Fd socket;
  bool complete = false;
  bool repeat = false;
};

}  // namespace orvaned
