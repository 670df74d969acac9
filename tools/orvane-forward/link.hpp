#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "chunk.hpp"
#include "cluster.hpp"
#include "connection.hpp"
#include "metrics.hpp"
#include "stop.hpp"

namespace forward {

// The forwarder's way to the cluster, which several threads share. It repeats what fails, for ever.
// It throws Stopped, and Refused if repeating does not help.
class Link {
 public:
  struct Settings {
    tool::NatsOptions nats;
    std::string host;
    int replicas = 0;  // 0: not asked for
    bool verify = false;
  };

  Link(Settings settings, Stop& stop, Metrics& metrics);

  // Connects, and makes the stream if it is missing. All calls wait for the first one.
  void open();

  // Has the cluster been ready to use once?
  bool isOpen() const { return wasReady; }

  // Returns the size that chunks may have now.
  std::size_t chunkSize();

  // Stores a chunk, unless it is stored already. Returns stored, known or tooLarge.
  Answer store(const Chunk& chunk);

  // Compares a chunk with what is stored, and stores it if nothing is. What differs is logged and
  // counted. Returns the same.
  Answer verify(const Chunk& chunk);

  // Ends all requests that other threads wait for.
  void close();

 private:
  std::shared_ptr<Connection> current();
  void connect(const std::shared_ptr<Connection>& ended);
  void waitUntilReady();
  bool isReady(int& missing);
  bool isStored(const Chunk& chunk);
  void report(const std::string& trouble);

  const Settings settings;
  Stop& stop;
  Metrics& metrics;

  std::mutex opening;
  std::mutex connecting;
  std::atomic<bool> wasReady = false;
  std::mutex mutex;  // protects what follows
  std::shared_ptr<Connection> connection;
  std::optional<std::uint64_t> messageLimit;
  std::string lastTrouble = "not connected yet";
  bool isClosed = false;
};

}  // namespace forward
