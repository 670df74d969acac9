#pragma once

#include <functional>
#include <memory>
#include <string>

#include "supervisor/process_context.hpp"

namespace orvaned {

// Two processes that finish unfinished streams in the store: a broker, and a confined process that
// reads and checks the files. Nothing here throws or blocks.
class RecoveryProcess {
 public:
  // Finishes the streams of dead servers.
  static RecoveryProcess ofDeadServers(const ProcessContext& context);

  // Finishes the stream that a dead worker of this queue left open, with the worker's broker. If
  // the broker has died too, the stream has to be searched for: isToBeRepeated().
  static RecoveryProcess ofWorker(const ProcessContext& context, const std::string& queue,
                                  BrokerProcess workersBroker);

  // The same without the broker: finishes each stream of this queue that no process has locked.
  static RecoveryProcess ofQueue(const ProcessContext& context, const std::string& queue);

  // Only waits for the end of the broker of a worker that ended normally. If the broker was killed,
  // its worker may not have been able to finish a stream.
  static RecoveryProcess nothingLeft(const ProcessContext& context, const std::string& queue,
                                     BrokerProcess workersBroker);

  void step();
  void signal(int number) const;
  void abandon();

  bool isOver() const { return !broker && !confined; }

  // Valid when it is over. True: its broker died, the store could not be searched or was moved away
  // meanwhile, or some server is still dying. The search must then be repeated, for queue(), or for
  // dead servers if it is empty.
  bool isToBeRepeated() const { return repeat; }
  const std::string& queue() const { return queueName; }

 private:
  RecoveryProcess(const ProcessContext& context, std::string queueName, const char* who);

  void search();
  void start(const std::function<void()>& task);
  void startConfined(const tool::Fd& socket);

  const ProcessContext& context;
  const std::string queueName;
  const char* const who;
  std::unique_ptr<Child> broker;
  std::unique_ptr<Child> confined;
  bool repeat = false;
};

}  // namespace orvaned
