#pragma once

#include <string>

namespace orvaned {

// Whoever started this process and asked to be told how it is doing: systemd, of a service of
// Type=notify. A message is a datagram to the Unix socket that NOTIFY_SOCKET names; without it
// nobody is told.
class ServiceManager {
 public:
  // Takes the socket's name out of the environment: it is for this process alone.
  ServiceManager();

  // Such as "READY=1". Nobody waits for it, and nothing depends on its arrival.
  void tell(const std::string& state) const;

 private:
  std::string address;
};

}  // namespace orvaned
