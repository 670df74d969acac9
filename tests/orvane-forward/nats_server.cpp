#include "orvane-forward/nats_server.hpp"

#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>
#include <regex>
#include <stdexcept>

#include "support/eventually.hpp"

namespace orvane::test {
namespace {

// Sends one request over the wire protocol and prints the data of the answer.
constexpr char kAsk[] = R"(
import socket, sys
port, subject, body = int(sys.argv[1]), sys.argv[2], sys.argv[3].encode()
with socket.create_connection(("127.0.0.1", port), 30) as connection:
    file = connection.makefile("rwb")
    file.readline()
    file.write(b'CONNECT {"verbose":false,"headers":true,"no_responders":true,'
               b'"user":"admin","pass":"admin"}\r\nSUB _INBOX.test 1\r\n')
    file.write(f"PUB {subject} _INBOX.test {len(body)}\r\n".encode() + body + b"\r\n")
    file.flush()
    while True:
        words = file.readline().split()
        if not words or words[0] == b"-ERR":
            sys.exit(f"no answer: {words}")
        if words[0] == b"HMSG":
            file.read(int(words[-2]))
            print(file.read(int(words[-1]) - int(words[-2])).decode())
            break
        if words[0] == b"MSG":
            print(file.read(int(words[-1])).decode())
            break
)";

}  // namespace

NatsServer::NatsServer(const std::string& settings) {
  configure(settings);
  const std::filesystem::path ports = std::filesystem::path(folder.path()) / "ports";
  std::filesystem::create_directory(ports);
  server = std::make_unique<Process>(std::vector<std::string>{NATS_SERVER_PATH, "-a", "127.0.0.1",
                                                              "-p", "-1", "-c", configuration(),
                                                              "--ports_file_dir", ports.string()});
  const bool isThere = eventually([&] {
    for (const std::string& name : namesIn(ports.string())) {
      std::smatch found;
      const std::string text = readFile(ports / name);
      if (std::regex_search(text, found, std::regex("\"nats\":\\s*\\[\\s*\"([^\"]+)\""))) {
        address = found[1];
      }
    }
    return !address.empty() || server->hasEnded();
  });
  if (!isThere || address.empty() || !eventually([&] { return isReady(); })) {
    throw std::runtime_error("nats-server does not start: " + server->errorOutput());
  }
}

int NatsServer::port() const {
  return std::stoi(address.substr(address.rfind(':') + 1));
}

void NatsServer::kill() {
  server->signal(SIGKILL);
  server->wait();
}

void NatsServer::start() {
  server = std::make_unique<Process>(std::vector<std::string>{
      NATS_SERVER_PATH, "-a", "127.0.0.1", "-p", std::to_string(port()), "-c", configuration()});
  if (!eventually([&] { return isReady(); })) {
    throw std::runtime_error("nats-server does not start again: " + server->errorOutput());
  }
}

void NatsServer::configure(const std::string& settings) const {
  writeFile(configuration(),
            "jetstream { store_dir: \"" + folder.path() + "/store\" }\n" + settings + "\n");
}

void NatsServer::reload() const {
  const std::string before = server->errorOutput();
  server->signal(SIGHUP);
  EXPECT_TRUE(eventually([&] {
    return server->errorOutput().find("Reloaded server configuration", before.size()) !=
           std::string::npos;
  }));
}

bool NatsServer::isReady() const {
  return server->errorOutput().find("Server is ready") != std::string::npos;
}

std::string NatsServer::ask(const std::string& subject, const std::string& body) const {
  return run({PYTHON_PATH, "-c", kAsk, std::to_string(port()), subject, body}).out;
}

}  // namespace orvane::test
