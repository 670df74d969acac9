#pragma once

#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "support/temp_folder.hpp"

namespace orvane::test {

// The server's end of one lease, without a server: listens at its own path, and says what it
// is told to say.
class FakeServer {
 public:
  struct Script {
    std::vector<std::string> says = {};
    std::vector<int> files = {};  // go with the first of these packets
    bool hears = true;            // the request, before it says anything
    bool ends = false;            // the connection, when it has said everything
  };

  FakeServer();
  ~FakeServer();
  FakeServer(const FakeServer&) = delete;
  FakeServer& operator=(const FakeServer&) = delete;

  const std::string& path() const { return socketPath; }

  // Takes the next client as the script says, in a separate thread.
  void serve(Script script);

  // Takes one client after the other; a new one ends the connection of the one before.
  void serveEach(std::vector<Script> scripts);

  // All of these first wait until the script is through.
  void awaitScript();
  const std::string& request();                // the last client's
  const std::vector<std::string>& requests();  // of all clients
  void say(const std::string& packet, const std::vector<int>& files = {});
  void stopSaying();   // its half of the connection, and hears on
  void end();          // also of a script whose client never came
  std::string hear();  // the client's next packet; empty at the end of the connection

 private:
  std::string receive() const;
  void send(const std::string& packet, const std::vector<int>& files) const;
  void follow(const Script& script);
  void closeClient();

  TempFolder folder;
  std::string socketPath;
  int listener;
  int client = -1;
  std::vector<std::string> heard;
  std::thread thread;
};

}  // namespace orvane::test
