#include "support/server.hpp"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <utility>

#include "support/queue_pair.hpp"

namespace orvane::test {
namespace {

std::vector<std::string> arguments(const std::string& queue, const std::string& store,
                                   const std::vector<std::string>& options) {
  std::vector<std::string> words = {"--queue", queue, "--store", store};
  words.insert(words.end(), options.begin(), options.end());
  return words;
}

constexpr char kNone[] = "none";

// The value of a line in a manifest, which may not be there yet.
std::string factIn(const std::string& path, const std::string& name) {
  std::ifstream manifest(path);
  for (std::string line; std::getline(manifest, line);) {
    if (line.starts_with(name + "=")) {
      return line.substr(name.size() + 1);
    }
  }
  return kNone;
}

}  // namespace

Server::Server(const std::vector<std::string>& options, const ServerProcess::Setup& setup)
    : queueName(uniqueQueueName()),
      server(std::make_unique<ServerProcess>(arguments(queueName, folder.path(), options), setup)) {
  if (!server->isServing()) {
    throw std::runtime_error("orvaned did not start: " + server->rawOutput());
  }
}

Server::~Server() {
  server.reset();
  for (const std::string& name : sharedMemoryNamed(queueName)) {
    std::filesystem::remove("/dev/shm/" + name);
  }
}

std::vector<std::string> Server::sendCommand(const std::vector<std::string>& arguments) const {
  std::vector<std::string> words = {ORVANE_PATH, "send", "--queue", queueName};
  words.insert(words.end(), arguments.begin(), arguments.end());
  return words;
}

std::vector<std::string> Server::streams() const {
  std::vector<std::pair<std::string, std::string>> byTime;
  for (const std::string& name : namesIn(store())) {
    if (!name.starts_with(".")) {  // a folder on its way to its name
      const std::string path = store() + "/" + name;
      const std::string open = factIn(path + "/manifest.part", "begun");
      byTime.emplace_back(open == kNone ? factIn(path + "/manifest", "begun") : open, path);
    }
  }
  std::sort(byTime.begin(), byTime.end());
  std::vector<std::string> paths;
  for (auto& [begun, path] : byTime) {
    paths.push_back(std::move(path));
  }
  return paths;
}

std::string Server::id(std::size_t number) const {
  return std::filesystem::path(streams().at(number)).filename();
}

std::string Server::fact(std::size_t number, const std::string& name) const {
  const std::vector<std::string> folders = streams();
  return number < folders.size() ? factIn(folders[number] + "/manifest", name) : kNone;
}

std::vector<std::string> Server::segmentFiles(std::size_t number) const {
  std::vector<std::string> files;
  for (const std::string& name : namesIn(streams().at(number))) {
    if (name.starts_with("segment-")) {
      files.push_back(name);
    }
  }
  return files;
}

std::string Server::content(std::size_t number) const {
  std::string bytes;
  for (const std::string& file : segmentFiles(number)) {
    bytes += readFile(streams().at(number) + "/" + file);
  }
  return bytes;
}

std::vector<std::string> sharedMemoryNamed(const std::string& part) {
  std::vector<std::string> names;
  for (const std::string& name : namesIn("/dev/shm")) {
    if (name.find(part) != std::string::npos) {
      names.push_back(name);
    }
  }
  return names;
}

}  // namespace orvane::test
