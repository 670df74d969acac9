#pragma once

#include <sys/socket.h>
#include <unistd.h>

#include <thread>
#include <utility>

#include "store/broker.hpp"
#include "store/brokered_store.hpp"
#include "supervisor/child.hpp"

namespace orvane::test {

// A broker in a thread of this process, and the client's end of its socket.
class RunningBroker {
 public:
  explicit RunningBroker(const orvaned::Broker::Task& task)
      : RunningBroker(task, orvaned::connectedSockets()) {}
  ~RunningBroker() {
    shutdown(file, SHUT_RDWR);
    thread.join();
  }
  RunningBroker(const RunningBroker&) = delete;
  RunningBroker& operator=(const RunningBroker&) = delete;

  // The socket of a process that goes on after the client has died.
  tool::Fd otherEnd() const { return tool::Fd(dup(ours.get())); }

  orvaned::BrokerClient client;

 private:
  RunningBroker(const orvaned::Broker::Task& task, std::pair<tool::Fd, tool::Fd> ends)
      : client(tool::Fd(dup(ends.first.get()))),
        ours(std::move(ends.first)),
        file(ours.get()),
        thread([task, end = std::move(ends.second)]() mutable {
          orvaned::Broker(task, std::move(end)).run();
        }) {}

  tool::Fd ours;
  int file;
  std::thread thread;
};

}  // namespace orvane::test
