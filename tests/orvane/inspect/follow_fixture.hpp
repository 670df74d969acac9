#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <orvane/orvane.hpp>
#include <string>
#include <vector>

#include "support/eventually.hpp"
#include "support/process.hpp"
#include "support/server.hpp"

namespace orvane::test {

// A stream that is sent text by text, each of which is answered at once.
class TextStream {
 public:
  explicit TextStream(const std::string& queue) : writer("follow", queue, 30, 5, false) {
    writer.open();
  }

  void send(const std::string& text) {
    writer.writeSegment(reinterpret_cast<const unsigned char*>(text.data()), text.size());
    writer.flush_shm_buffer(30);
  }
  void endSegment() {
    writer.endSegment();
    writer.flush_shm_buffer(30);
  }
  void close() { writer.close(); }
  void stop() { writer.stop(false); }

 private:
  ShmWriter writer;
};

inline std::vector<std::string> followCommand(const std::string& stream,
                                              const std::vector<std::string>& options = {}) {
  std::vector<std::string> command = {ORVANE_PATH, "cat", "--follow", stream};
  command.insert(command.end(), options.begin(), options.end());
  return command;
}

inline bool prints(const Process& process, const std::string& text) {
  return eventually([&] { return process.output() == text; });
}

// A server, and a producer whose stream is followed.
class FollowTest : public testing::Test {
 protected:
  // `options` are those of the server.
  explicit FollowTest(const std::vector<std::string>& options = {}) : server(options) {}

  // The folder of the only stream, once its manifest has begun.
  std::string folder() const {
    EXPECT_TRUE(eventually([this] {
      return !server.streams().empty() &&
             std::filesystem::exists(server.streams().front() + "/manifest.part");
    }));
    return server.streams().front();
  }

  Server server;
  TextStream producer{server.queue()};
};

}  // namespace orvane::test
