#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "chunk.hpp"
#include "connection.hpp"

namespace forward {

// The answer of the cluster to a message that is to be stored.
enum class Answer {
  stored,
  known,        // the subject has a message: this chunk, sent before
  repeated,     // the message's id is known, which does not say that the message is stored
  full,         // a limit or a disk: trying again may help after somebody has made room
  unavailable,  // no answer, no leader
  tooLarge      // for the payload limit
};
Answer answerIn(std::string_view text);

// Why a message is not stored, for people, or "".
std::string reasonIn(std::string_view text);

using Json = nlohmann::json;

// The settings of the stream that keeps all chunks, to be made.
Json settingsFor(int replicas);

// Returns how settings would lose or refuse data, or "". `replicas` is the least number; 0: any.
std::string faultOf(const Json& settings, int replicas);

// What is known of the stream.
struct ClusterState {
  enum class Is { ready, missing, unavailable };
  Is is = Is::unavailable;
  std::string reason;                         // for people, unless it is ready
  std::string fault;                          // of its settings
  std::optional<std::uint64_t> messageLimit;  // bytes of a message, with its headers
};

// JetStream, through its requests (`$JS.API.`), each of which is one message and one answer.
class Cluster {
 public:
  explicit Cluster(const Connection& connection) : connection(connection) {}

  ClusterState state(int replicas) const;

  // Makes the stream. Returns false if it could not be made now; throws Refused if it never can.
  // Without a number of replicas, it is 3, or 1 where there is one server.
  bool make(int replicas) const;

  // Stores a chunk. The message's id lets the cluster drop what is repeated at once. `reason` says,
  // for people, why a chunk is not stored.
  Answer store(const Chunk& chunk, bool withId, std::string& reason) const;

  // Returns what is stored under a subject, or nothing if nothing is there. The stream's leader
  // answers: after several servers have failed at once, another one may have what the stream has
  // lost. `status` is not NATS_OK if it does not answer.
  Message stored(const std::string& subject, natsStatus& status) const;

  // Returns the subjects in the stream that match a pattern, as the stream's leader knows them, or
  // nothing if it does not answer, or if there is no stream.
  std::optional<std::set<std::string>> subjects(const std::string& pattern,
                                                std::string& reason) const;

 private:
  std::optional<Json> ask(const std::string& request, const Json& body, std::string& reason) const;

  const Connection& connection;
};

}  // namespace forward
