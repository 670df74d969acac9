#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "orvane/lease.hpp"
#include "support/fake_server.hpp"
#include "support/throws.hpp"
#include "texts.hpp"

namespace orvane::test {

using Texts = std::vector<std::string>;

constexpr std::uint64_t kRing = 1048576;

inline std::size_t openFiles() {
  return namesIn("/proc/self/fd").size();
}

// A server with a ring of 1 MiB.
struct RingServer {
  RingServer() : reader(kRing) {}

  Texts granted() const { return {"ring r-1 1048576"}; }
  std::vector<int> files() const { return {reader.producersFile(), reader.serversFile()}; }
  std::unique_ptr<Lease> lease(Transport transport = Transport::ring) const {
    return std::make_unique<Lease>(server.path(), kLong, transport, kRing);
  }

  // Taking a ring fails, and leaves no descriptor open.
  testing::AssertionResult refuses(ox_status_t status, const std::string& message,
                                   const std::vector<int>& files,
                                   const std::string& says = "ring r-1 1048576") {
    server.serve({.says = {says}, .files = files});
    const std::size_t before = openFiles();
    const testing::AssertionResult result = throwsErrno(status, message, [&] { lease(); });
    server.awaitScript();
    server.end();
    return openFiles() == before ? result
                                 : testing::AssertionFailure() << "a descriptor was left open";
  }

  RingReader reader;
  FakeServer server;
};

}  // namespace orvane::test
