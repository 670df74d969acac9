#include "support/lease_fixture.hpp"

#include <algorithm>
#include <filesystem>
#include <stdexcept>

#include "support/manifest.hpp"

namespace orvane::test {
namespace {

// The manifest of a stream, whether it has ended or not; empty if there is none yet.
std::string manifestIn(const std::string& folder) {
  for (const char* name : {"/manifest.part", "/manifest"}) {
    try {
      return readFile(folder + name);
    } catch (const std::runtime_error&) {
      continue;  // it has the other name
    }
  }
  return "";
}

bool isOf(const std::string& queue, const std::string& folder) {
  return manifestIn(folder).find("\nqueue=" + queue + "\n") != std::string::npos;
}

}  // namespace

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

// The file is called `socket`, so its folder gives the name.
std::string LeaseTest::socketName() const {
  return std::filesystem::path(folder.path()).filename();
}

bool LeaseTest::hasStream(const std::string& queue) const {
  const Words names = namesIn(store.path());
  return std::any_of(names.begin(), names.end(), [&](const std::string& name) {
    return isOf(queue, store.path() + "/" + name);
  });
}

std::string LeaseTest::folderOf(const std::string& queue) const {
  std::string found;
  for (const std::string& name : namesIn(store.path())) {
    const std::string path = store.path() + "/" + name;
    if (isOf(queue, path)) {
      found = found.empty() ? path : throw std::runtime_error("there are several streams");
    }
  }
  return found.empty() ? throw std::runtime_error("there is no stream") : found;
}

std::string LeaseTest::streamOf(const std::string& queue) const {
  const std::string manifest = manifestIn(folderOf(queue));
  const std::size_t begin = manifest.find("\nstream=") + std::string("\nstream=").size();
  return manifest.substr(begin, manifest.find('\n', begin) - begin);
}

std::string LeaseTest::endingOf(const std::string& queue) const {
  const std::string path = folderOf(queue) + "/manifest";
  if (!eventually([&] { return std::filesystem::exists(path); })) {
    return "it has not ended";
  }
  const std::string manifest = plainManifest(readFile(path));
  return manifest.substr(manifest.find("\nend=") + 1);
}

}  // namespace orvane::test
