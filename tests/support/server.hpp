#pragma once

#include <memory>
#include <string>
#include <vector>

#include "support/process.hpp"
#include "support/server_process.hpp"
#include "support/temp_folder.hpp"

namespace orvane::test {

// A real orvaned with its own queue and store.
class Server {
 public:
  explicit Server(const std::vector<std::string>& options = {},
                  const ServerProcess::Setup& setup = {});
  ~Server();  // also removes the queues of a server that was killed

  ServerProcess& process() { return *server; }
  pid_t pid() const { return server->process(); }
  const std::string& log() { return server->outputSoFar(); }
  const std::string& queue() const { return queueName; }
  const std::string& store() const { return folder.path(); }

  // `orvane send` to this server.
  std::vector<std::string> sendCommand(const std::vector<std::string>& arguments) const;

  // The stored streams' folders, oldest first.
  std::vector<std::string> streams() const;

  // The stored stream `number`: its id; a line of its manifest by its name, such as "end"; its
  // segments one behind the other.
  std::string id(std::size_t number) const;
  std::string fact(std::size_t number, const std::string& name) const;
  std::string content(std::size_t number) const;
  std::vector<std::string> segmentFiles(std::size_t number) const;

 private:
  TempFolder folder;
  std::string queueName;
  std::unique_ptr<ServerProcess> server;
};

// What in /dev/shm has `part` in its name.
std::vector<std::string> sharedMemoryNamed(const std::string& part);

}  // namespace orvane::test
