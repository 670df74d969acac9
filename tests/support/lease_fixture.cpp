#include "support/lease_fixture.hpp"

#include <filesystem>
#include <stdexcept>

namespace orvane::test {

LeaseTest::Words LeaseTest::arguments(const Words& more) const {
  Words words = {"--socket", socket, "--store", store.path(), "--sync", "none"};
  words.insert(words.end(), more.begin(), more.end());
  return words;
}

void LeaseTest::start(const Words& more) {
  server.reset();
  server = std::make_unique<ServerProcess>(arguments(more));
  ASSERT_TRUE(server->says("serving leases at ")) << server->output();
}

std::string LeaseTest::folderOf(const std::string& queue) const {
  std::string found;
  for (const std::string& name : namesIn(store.path())) {
    if (name.starts_with(queue + "-")) {
      found = found.empty() ? name : throw std::runtime_error("there are several streams");
    }
  }
  return found.empty() ? throw std::runtime_error("there is no stream")
                       : store.path() + "/" + found;
}

std::string LeaseTest::streamOf(const std::string& queue) const {
  return folderOf(queue).substr(store.path().size() + 1 + queue.size() + 1);
}

std::string LeaseTest::endingOf(const std::string& queue) const {
  const std::string path = folderOf(queue) + "/manifest";
  if (!eventually([&] { return std::filesystem::exists(path); })) {
    return "it has not ended";
  }
  const std::string manifest = readFile(path);
  return manifest.substr(manifest.find("\nend=") + 1);
}

}  // namespace orvane::test
