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
    bool hears = true;  // the request, before it says anything
    bool ends = false;  // the connection, when it has said everything
  };

  FakeServer();
  ~FakeServer();
  FakeServer(const FakeServer&) = delete;
  FakeServer& operator=(const FakeServer&) = delete;

  const std::string& path() const { return socketPath; }

  // Takes the next client as the script says, in a separate thread.
  void serve(Script script);

  // All of these first wait until the script is through.
  void awaitScript();
  const std::string& request();
  void say(const std::string& packet);
  void stopSaying();   // its half of the connection, and hears on
  void end();          // also of a script whose client never came
  std::string hear();  // the client's next packet; empty at the end of the connection

 private:
  std::string receive() const;
  void send(const std::string& packet) const;
  void closeClient();

  TempFolder folder;
  std::string socketPath;
  int listener;
  int client = -1;
  std::string heard;
  std::thread thread;
};

}  // namespace orvane::test
