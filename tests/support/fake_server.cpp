#include "support/fake_server.hpp"

#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
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
  serveEach({std::move(script)});
}

void FakeServer::serveEach(std::vector<Script> scripts) {
  awaitScript();
  thread = std::thread([this, scripts = std::move(scripts)] {
    for (const Script& script : scripts) {
      follow(script);
    }
  });
}

void FakeServer::follow(const Script& script) {
  closeClient();
  client = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
  if (client >= 0 && script.hears) {
    heard.push_back(receive());
  }
  std::vector<int> files = script.files;
  for (const std::string& packet : script.says) {
    send(packet, std::exchange(files, {}));
  }
  if (script.ends) {
    closeClient();
  }
}

void FakeServer::awaitScript() {
  if (thread.joinable()) {
    thread.join();
  }
}

const std::string& FakeServer::request() {
  return requests().back();
}

const std::vector<std::string>& FakeServer::requests() {
  awaitScript();
  return heard;
}

void FakeServer::say(const std::string& packet, const std::vector<int>& files) {
  awaitScript();
  send(packet, files);
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

void FakeServer::send(const std::string& packet, const std::vector<int>& files) const {
  std::string text = packet;
  iovec bytes = {text.data(), text.size()};
  msghdr message = {};
  message.msg_iov = &bytes;
  message.msg_iovlen = 1;
  const std::size_t size = files.size() * sizeof(int);
  std::vector<cmsghdr> control(CMSG_SPACE(size) / sizeof(cmsghdr) + 1);
  if (!files.empty()) {
    message.msg_control = control.data();
    message.msg_controllen = CMSG_SPACE(size);
    control[0].cmsg_level = SOL_SOCKET;
    control[0].cmsg_type = SCM_RIGHTS;
    control[0].cmsg_len = CMSG_LEN(size);
    std::memcpy(CMSG_DATA(control.data()), files.data(), size);
  }
  sendmsg(client, &message, MSG_NOSIGNAL);
}

void FakeServer::closeClient() {
  if (client >= 0) {
    close(client);
    client = -1;
  }
}

}  // namespace orvane::test
