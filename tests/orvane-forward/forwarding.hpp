#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "orvane-forward/nats_server.hpp"
#include "orvane/store/stored_streams.hpp"
#include "support/process.hpp"

namespace orvane::test {

// A store whose streams are forwarded to a real server and fetched from it.
class Forwarding : public StoredStreams {
 protected:
  explicit Forwarding(const std::string& settings = "") : nats(settings) {}

  static inline const std::string kFirstName = "host/orders/" + kFirst;
  static inline const std::string kSecondName = "host/orders/" + kSecond;

  std::vector<std::string> forwardCommand(const std::vector<std::string>& options = {}) const {
    std::vector<std::string> words = {ORVANE_FORWARD_PATH, "--store", store.path(), "--nats",
                                      nats.url(),          "--host",  "host"};
    words.insert(words.end(), options.begin(), options.end());
    return words;
  }

  // Forwards everything, and fails after a minute.
  Ended forwardAll(std::vector<std::string> options = {}) const {
    options.insert(options.begin(), {"--once", "--timeout", "60"});
    return run(forwardCommand(options));
  }

  Ended fetch(const std::string& name, const std::string& folder,
              std::vector<std::string> options = {}) const {
    options.insert(options.begin(), {"fetch", name, folder, "--nats", nats.url()});
    return runOrvane(options);
  }

  Ended list(std::vector<std::string> options = {}) const {
    options.insert(options.begin(), {"streams", "--nats", nats.url()});
    return runOrvane(options);
  }

  // Fetches a stream and compares each file.
  void expectFetched(const std::string& id) {
    const std::string folder = fetched.path() + "/" + id;
    std::filesystem::remove_all(folder);
    const Ended ended = fetch("host/orders/" + id, folder);
    ASSERT_EQ(ended.how, "exit 0") << ended.out << ended.err;
    expectSame(id, folder);
  }

  void expectSame(const std::string& id, const std::string& folder) const {
    ASSERT_EQ(namesIn(folder), namesIn(path(id)));
    const std::filesystem::path fetchedFiles = folder;
    for (const std::string& name : namesIn(folder)) {
      EXPECT_TRUE(readFile(fetchedFiles / name) == readFile(path(id, name))) << name;
    }
  }

  bool isMarked(const std::string& id) const {
    return std::filesystem::exists(store.path() + "/.forwarded/" + id);
  }

  // A stream of one segment with this many bytes.
  void writeLarge(const std::string& id, std::size_t bytes) const {
    std::string content(bytes, '\0');
    std::uint32_t value = 1;
    for (char& c : content) {
      value = value * 1664525 + 1013904223;
      c = static_cast<char>(value >> 24);
    }
    char checksum[16] = {};
    std::snprintf(checksum, sizeof checksum, "%08x", crc32Of(content));
    const std::string size = std::to_string(bytes);
    write(id, "segment-000000", content);
    write(
        id, "manifest",
        withChecksum(headOf(id) + "segment number=0 records=1 bytes=" + size +
                     " algorithm=0 parameters=0,0,0 crc32=" + checksum + " file=segment-000000\n" +
                     kNoOthers + endingOf(id, "records=1 bytes=" + size + " segments=1")));
  }

  // How many messages the cluster's stream has.
  int messages() const {
    const std::string info = nats.ask("$JS.API.STREAM.INFO.orvane");
    const std::size_t at = info.find("\"messages\":");
    return at == std::string::npos ? -1 : std::stoi(info.substr(at + 11));
  }

  // Makes the cluster's stream with other settings than the forwarder would.
  void makeStream(const std::string& settings) const {
    nats.ask("$JS.API.STREAM.CREATE.orvane",
             R"({"name":"orvane","subjects":["orvane.1.>"],"retention":"limits","storage":"file",)"
             R"("num_replicas":1,"max_msgs_per_subject":1,"discard":"new",)"
             R"("discard_new_per_subject":true,"allow_direct":true,"max_consumers":-1,)"
             R"("max_msgs":-1,"max_msg_size":-1,"max_age":0)" +
                 settings + "}");
  }

  NatsServer nats;
  const TempFolder fetched;
};

}  // namespace orvane::test
