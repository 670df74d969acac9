#pragma once

#include <memory>
#include <string>
#include <vector>

#include "support/process.hpp"
#include "support/temp_folder.hpp"

namespace orvane::test {

// A real nats-server with JetStream, on a free port of this machine.
class NatsServer {
 public:
  // `settings` are lines of its configuration file.
  explicit NatsServer(const std::string& settings = "");

  const std::string& url() const { return address; }
  int port() const;
  const Process& process() const { return *server; }

  void kill();

  // Starts it again, at the same port and with what it has stored.
  void start();

  // Changes the settings of a server that runs or will be started; reload() makes a running one
  // read them.
  void configure(const std::string& settings) const;
  void reload() const;

  // A request of the server's API, answered to a program in Python; its JSON.
  std::string ask(const std::string& subject, const std::string& body = "") const;

 private:
  std::string configuration() const { return folder.path() + "/nats.conf"; }
  bool isReady() const;

  TempFolder folder;
  std::string address;
  std::unique_ptr<Process> server;
};

}  // namespace orvane::test
