#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <orvane/orvane.hpp>
#include <span>
#include <stdexcept>
#include <string>

#include "leases/lease_connection.hpp"
#include "store/store.hpp"
#include "worker/capture.hpp"
#include "worker/ending.hpp"
#include "worker/queue_pair.hpp"
#include "worker/stream_state.hpp"

namespace orvaned {

// The pause between two looks at an empty queue: from 50 us, doubling to 5 ms.
class Pause {
 public:
  std::chrono::microseconds next();
  void reset() { length = kShortest; }

 private:
  static constexpr std::chrono::microseconds kShortest{50};
  static constexpr std::chrono::microseconds kLongest{5000};

  std::chrono::microseconds length = kShortest;
};

// The queues are of no more use: a process died or hangs inside one. The worker has ended its
// stream and said so.
class PairFailed : public std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Serves one queue pair: takes its batches, stores what they carry, answers each of them once.
//
// A stream begins with its open record and ends with close or stop. What refuses a record of it
// breaks it: a message that is no batch, a record that may not come, a store that fails. Something
// is lost then, so the stream ends there, as broken; its later records are dropped and answered
// with the same error, up to its close or stop (answered so too) or the next open.
//
// An open record while a stream is open cuts that stream off. But when nothing came since its own
// open record it is taken for a repetition: a writer whose open() failed tries again, and that
// should leave no empty folder behind. A close or stop without an open stream is a repetition as
// well, and no error. Other records outside a stream are kept apart.
//
// A success is answered without text while a stream is open, else with the receipt of the last one.
// A lease is told of each stream's end: its receipt, or "failed STATUS REASON" when it was not
// stored whole. While its producer leaves too many of them unread, no batch is taken.
class Worker {
 public:
  // A null pointer: the queue is no lease's.
  Worker(std::string queueName, QueuePair& queues, Store& store, LeaseConnection* lease = nullptr,
         Capture capture = {});

  // Takes one batch, if there is one. What Boost throws passes through.
  bool runOnce();

  // The same; returns how long to wait before the next look.
  std::chrono::microseconds step();

  // Takes batches until it is to end, then finishes; returns why it ended. When the queues fail,
  // ends the open stream as broken, tells the producer if that is still possible, and throws
  // PairFailed.
  const Ending& run(const EndWithin& endWithin);

  // Takes what waits in the send queue now, at most as many messages as it holds; cuts an open
  // stream off; posts a notice; and gives a producer that reads its receipts some seconds to.
  void finish(const Ending& ending);

 private:
  using Entry = orvane::ShmBatch::Entry;
  using Header = orvane::pvk_shm_message_t;

  // Of a lease's receipts.
  enum class Unread { few, none };

  struct Stream {
    StreamState state;
    std::unique_ptr<StreamFolder> folder;
    bool segmentHasData = false;  // the one in progress
  };

  void takeBatch(std::span<const unsigned char> message);
  void take(const Entry& entry);
  void open(const Header& header);
  void close(const Header& header, orvane::StreamEnd how);
  void storeRecord(const Entry& entry);
  void countRecord(const Entry& entry);
  void countSegment();
  void countBatch(ox_status_t status);
  void flush();
  orvane::pvk_shm_response_t answer() const;

  void note(const Ox_ErrnoException& error);
  void logError(const char* function, const Ox_ErrnoException& error) const;
  void report(const char* function, const Ox_ErrnoException& error);
  void fail(const char* function, const Ox_ErrnoException& error);
  void abandonStream(orvane::StreamEnd how, const std::string& reason, ox_status_t status = 0);
  orvane::Receipt concludeStream();
  void tellFailure(ox_status_t status, const std::string& reason);
  void tell(const orvane::LeaseReply& reply);
  bool mayTake();
  bool awaitReader(Unread wanted);
  void publishUnread();
  void farewell(const std::string& reason);
  [[noreturn]] void giveUp(const std::string& reason);

  const orvane::server::Logger log{"worker"};
  const std::string queueName;
  const std::string loggedName;  // of the queue, fit for a line of the log
  QueuePair& queues;
  tool::QueueStats& stats;
  Store& store;
  LeaseConnection* const lease;
  Capture capture;
  bool receiptsAwaited = false;  // no batch is taken until some were read
  bool readerGivenUp = false;    // at the end: it does not read
  std::optional<Stream> stream;
  std::optional<Ox_ErrnoException> broken;      // the error of a broken stream that is not over
  std::optional<Ox_ErrnoException> batchError;  // the first one in the batch at hand
  std::uint64_t badBatches = 0;                 // refused since the start
  std::string lastReceipt;                      // empty while a stream is open
  Pause pause;
};

}  // namespace orvaned
