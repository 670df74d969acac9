#include "support/fake_server.hpp"

#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <utility>

#include "support/system_call.hpp"

namespace orvane::test {

FakeServer::FakeServer()
    : socketPath(folder.path() + "/socket"),
      listener(orThrow(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0), "socket")) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  socketPath.copy(address.sun_path, sizeof address.sun_path - 1);
  orThrow(bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address), "bind");
  orThrow(listen(listener, 0), "listen");  // one client may wait
}

FakeServer::~FakeServer() {
  shutdown(listener, SHUT_RDWR);  // for a client that never came
  awaitScript();
  closeClient();
  close(listener);
}

void FakeServer::serve(Script script) {
  awaitScript();
  thread = std::thread([this, script = std::move(script)] {
    client = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (client >= 0 && script.hears) {
      heard = receive();
    }
    for (const std::string& packet : script.says) {
      send(packet);
    }
    if (script.ends) {
      closeClient();
    }
  });
}

void FakeServer::awaitScript() {
  if (thread.joinable()) {
    thread.join();
  }
}

const std::string& FakeServer::request() {
  awaitScript();
  return heard;
}

void FakeServer::say(const std::string& packet) {
  awaitScript();
  send(packet);
}

void FakeServer::stopSaying() {
  awaitScript();
  shutdown(client, SHUT_WR);
}

void FakeServer::end() {
  shutdown(listener, SHUT_RDWR);
  awaitScript();
  closeClient();
}

std::string FakeServer::hear() {
  awaitScript();
  return receive();
}

std::string FakeServer::receive() const {
  char packet[1024];
  const ssize_t size = recv(client, packet, sizeof packet, 0);
  return {packet, size > 0 ? static_cast<std::size_t>(size) : 0};
}

void FakeServer::send(const std::string& packet) const {
  ::send(client, packet.data(), packet.size(), MSG_NOSIGNAL);
}

void FakeServer::closeClient() {
  if (client >= 0) {
    close(client);
    client = -1;
  }
}

}  // namespace orvane::test
