#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>

#include "cluster.hpp"
#include "connection.hpp"

namespace forward {

// Reads messages of the stream in the order in which they are stored. What fails is repeated until
// the cluster has not answered for a given time; then Unanswered is thrown.
class Unanswered : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class ClusterReader {
 public:
  // Connects.
  ClusterReader(const tool::NatsOptions& options, std::chrono::seconds patience);

  // Returns the subjects that match a pattern. A cluster that has just started may know fewer than
  // it has: unless `isEnough` accepts them, they are asked for again for some seconds.
  using Subjects = std::set<std::string>;
  Subjects subjects(const std::string& pattern,
                    const std::function<bool(const Subjects&)>& isEnough);

  // Returns the message that is stored under a subject which is there.
  Message stored(const std::string& subject);

  // Calls `use` for each message whose subject matches, again for those that come twice, until it
  // returns false. While `mayWait` returns true, none has to come; otherwise one must come within
  // the patience.
  void read(const std::string& pattern, const std::function<bool()>& mayWait,
            const std::function<bool(const std::string& subject, const Message&)>& use);

 private:
  using Clock = std::chrono::steady_clock;

  void progress() { lastProgress = Clock::now(); }
  void connect();
  void pause(const std::string& reason);
  bool readSome(const std::string& pattern, std::uint64_t& next, bool& isOver,
                const std::function<bool(const std::string&, const Message&)>& use);

  const tool::NatsOptions options;
  const std::chrono::seconds patience;
  Clock::time_point lastProgress = Clock::now();
  std::unique_ptr<Connection> connection;
};

}  // namespace forward
