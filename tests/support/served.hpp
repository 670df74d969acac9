#pragma once

#include <initializer_list>
#include <orvane/orvane.hpp>
#include <queue/message_queue.hpp>
#include <string>
#include <vector>

#include "store/store.hpp"
#include "support/answers.hpp"
#include "support/queue_pair.hpp"
#include "support/recording_sink.hpp"
#include "support/temp_folder.hpp"
#include "support/wire.hpp"
#include "worker/queue_pair.hpp"
#include "worker/worker.hpp"

namespace orvane::test {

// How a worker ends whose server is stopped.
inline const orvaned::Ending kStopped = {"the server was stopped", kStoppedNotice};

// A server in this process, one step at a time: a queue pair, a worker and an empty store.
//
// In the texts that it returns, QUEUE, STORE and RUN stand for the queue's name, the store's path
// and that part of the stream ids which differs from run to run. Streams are numbered from 0 here:
// the process numbers them on from one Served to the next.
class Served {
 public:
  explicit Served(std::size_t messageSize = 1024, std::size_t messages = 8);

  const std::string& queue() const { return name.text(); }
  const std::string& store() const { return temp.path(); }
  orvaned::Worker& worker() { return queueWorker; }

  // Sends one batch with these records, or one message as it stands.
  void send(std::initializer_list<Record> records);
  void send(const Bytes& message);

  // Takes every message that waits; returns the answers that wait then.
  std::vector<Answer> serve();

  // Sends one batch and serves it.
  std::vector<Answer> ask(std::initializer_list<Record> records);
  std::vector<Answer> ask(const Bytes& message);

  std::vector<Answer> answers();
  std::size_t waitingAnswers() const { return responseQueue.get_num_msg(); }

  // What is in the store: names, and the files of stream number `stream`, oldest first.
  // The manifest is that of plainManifest().
  std::vector<std::string> stored() const;
  std::vector<std::string> filesOf(std::size_t stream) const;
  std::string file(std::size_t stream, const std::string& fileName) const;
  std::string manifest(std::size_t stream) const;
  std::string endOf(std::size_t stream) const;  // the manifest's lines from "end=" on
  std::string pathOf(std::size_t stream) const;

  // What was logged since the last call.
  std::vector<Line> log();

 private:
  std::string masked(std::string text) const;

  const std::size_t firstStream;
  RecordingSink sink;
  TempFolder temp;
  const QueueName name;
  const QueueName responseName;
  orvaned::Store streamStore;
  orvaned::QueuePair pair;
  orvaned::Worker queueWorker;
  boost::interprocess::message_queue sendQueue;
  boost::interprocess::message_queue responseQueue;
};

}  // namespace orvane::test
