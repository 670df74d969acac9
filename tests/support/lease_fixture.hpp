#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "support/lease_client.hpp"
#include "support/server_process.hpp"
#include "support/temp_folder.hpp"

namespace orvane::test {

// The records of a stream of one segment.
inline const Record kOpen{.type = 0, .seqNo = 0};
inline const Record kHello{.type = 1, .seqNo = 2, .segmentDone = 0, .data = bytesOf("hello")};
inline const Record kEndOfSegment{.type = 2, .seqNo = 3, .segmentDone = 0};
inline const Record kClose{.type = 3, .seqNo = 5};
inline const Record kStop{.type = 4, .seqNo = 5};

// Tests of the real server, which finds a socket and a store for itself. A test that kills one
// starts another one, which removes what is left in /dev/shm.
class LeaseTest : public testing::Test {
 protected:
  using Words = std::vector<std::string>;

  // What is in /dev/shm of a queue pair that is served.
  static Words wholePair(const std::string& queue) {
    return {"." + queue + ".stats", queue, queue + "Response"};
  }

  // The command line of a server.
  Words arguments(const Words& more = {}) const;

  // Starts `server`, again if there is one, and waits until it leases.
  void start(const Words& more = {});

  // What the ids of all leases' streams begin with.
  std::string socketName() const;

  // Does the store have a stream of this queue?
  bool hasStream(const std::string& queue) const;

  // The only stream of a queue: its folder, its id, and how its manifest ends, once it does, as
  // plainManifest() shows it.
  std::string folderOf(const std::string& queue) const;
  std::string streamOf(const std::string& queue) const;
  std::string endingOf(const std::string& queue) const;

  const TempFolder folder;
  const TempFolder store;
  const std::string socket = folder.path() + "/socket";
  std::unique_ptr<ServerProcess> server;
};

}  // namespace orvane::test
