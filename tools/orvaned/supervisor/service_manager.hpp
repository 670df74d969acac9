#pragma once

#include <string>

namespace orvaned {

// The program that started this process and wants to know its state, such as systemd for a service
// of Type=notify. A state is sent as a datagram to the Unix socket that NOTIFY_SOCKET names.
// If that variable is not set, nothing is sent.
class ServiceManager {
 public:
  // Removes the socket's name from the environment: it is for this process only.
  ServiceManager();

  // Sends a state such as "READY=1". Does not block; nothing depends on its arrival.
  void notify(const std::string& state) const;

 private:
  std::string address;
};

}  // namespace orvaned
