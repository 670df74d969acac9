#pragma once

#include <memory>
#include <string>

#include "supervisor/process_context.hpp"

namespace orvaned {

// Two processes that finish what was left in the store: a broker, and a confined process that
// reads and checks the files. Nothing here throws or blocks.
class RecoveryProcess {
 public:
  // Finishes the stream that a dead worker left open, with its broker.
  RecoveryProcess(const ProcessContext& context, BrokerProcess workersBroker);

  // Finishes the streams of dead servers in the store; where `ownQueue` is not empty, also those of
  // the queue of that name that nobody has locked: this server alone serves it.
  RecoveryProcess(const ProcessContext& context, const std::string& ownQueue);

  // Only waits for the end of a broker that has nothing left to do.
  static RecoveryProcess nothingLeft(BrokerProcess broker);

  void step();
  void signal(int number) const;
  void abandon();

  bool isOver() const { return !broker && !confined; }

  // Once it is over: the store could not be searched, or some server is still dying.
  bool isToBeRepeated() const { return repeat; }

 private:
  RecoveryProcess() = default;

  void startSearch(const ProcessContext& context, const std::string& ownQueue);
  void startConfined(const ProcessContext& context, const tool::Fd& socket, const char* who);

  std::unique_ptr<Child> broker;
  std::unique_ptr<Child> confined;
  bool repeat = false;
};

}  // namespace orvaned
