#pragma once

#include <cstdint>
#include <initializer_list>
#include <queue/message_queue.hpp>
#include <stdexcept>
#include <string>
#include <vector>

#include "shm/fd.hpp"
#include "support/answers.hpp"
#include "support/await.hpp"
#include "support/wire.hpp"

namespace orvane::test {

// A producer's end of the lease protocol, packet by packet.
class LeaseClient {
 public:
  // Connects, and does not ask for anything yet. Throws when nobody listens there.
  explicit LeaseClient(const std::string& socketPath);

  void send(const std::string& packet) const;

  // The next packet; kEnd when the connection has ended. Throws when neither comes.
  std::string next() const;

  // Asks for a lease; returns the answer, or only the name that it gives.
  std::string ask() const;

  // An answer and the files that came with it; kEnd when the connection has ended.
  struct Ring {
    std::string answer;
    std::vector<tool::Fd> files;
  };
  Ring askForRing(std::uint64_t bytes) const;
  Ring askForTotals(const std::string& after = "") const;
  Ring nextWithFiles() const;

  // Has the server ended the connection? What it sent before can still be read.
  bool hasEnded() const;

  void close() { socket.reset(); }

 private:
  tool::Fd socket;
};

constexpr char kEnd[] = "(end)";

// What a producer does with a queue pair, one batch at a time. Holds the pair open when its names
// are gone.
class Producer {
 public:
  explicit Producer(const std::string& queue);

  void send(std::initializer_list<Record> records);
  void send(const Bytes& message);

  // The next answer.
  Answer answer() { return awaitAnswer(answerQueue); }

  Answer ask(std::initializer_list<Record> records) {
    send(records);
    return answer();
  }

 private:
  boost::interprocess::message_queue sendQueue;
  boost::interprocess::message_queue answerQueue;
};

// A producer with a lease.
struct LeasedProducer {
  // Throws the server's answer if it gives no lease.
  explicit LeasedProducer(const std::string& socketPath)
      : client(socketPath), name(granted(client.ask())), queues(name) {}

  LeaseClient client;
  const std::string name;
  Producer queues;

 private:
  static std::string granted(const std::string& answer) {
    return answer.starts_with("orvane-") ? answer : throw std::runtime_error(answer);
  }
};

}  // namespace orvane::test
