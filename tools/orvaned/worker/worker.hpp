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
#include "worker/batch_source.hpp"
#include "worker/capture.hpp"
#include "worker/ending.hpp"
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

// The source cannot be used any more: a process died or hangs inside a queue, or the producer broke
// the rules of its ring. The worker has ended its stream and posted a notice.
class PairFailed : public std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Serves one queue pair or ring: receives its batches, stores their records, answers each batch
// once.
//
// A stream begins with its open record and ends with close or stop. It breaks when something of it
// is lost: a message is not a batch, a record is invalid, or the store fails. The stream then ends
// as broken; its later records are dropped and answered with the same error, up to and including
// its close or stop, or up to the next open.
//
// An open record while a stream is open cuts that stream off. But if no other record has come since
// the stream's own open record, it counts as a repetition: a writer whose open() failed tries
// again, and that should not leave an empty folder. A close or stop without an open stream is a
// repetition as well, and not an error. Other records outside a stream are stored separately.
//
// The response to a success has no text while a stream is open; after that, it is the receipt of
// the last stream. A lease is sent the end of each stream: its receipt, or "failed STATUS REASON"
// if it was not stored whole. While its producer leaves too many of these unread, no batch is
// received.
class Worker {
 public:
  // `lease` is null for a queue with a fixed name.
  Worker(std::string queueName, BatchSource& source, Store& store, LeaseConnection* lease = nullptr,
         Capture capture = {});

  // Receives one batch, if there is one. Exceptions of Boost pass through.
  bool runOnce();

  // The same; returns how long to wait before the next look.
  std::chrono::microseconds step();

  // Serves until the worker is to end, then finishes; returns why it ended. When the queues fail,
  // it ends the open stream as broken, posts a notice if that is still possible, and throws
  // PairFailed.
  const Ending& run(const EndWithin& endWithin);

  // Receives what waits in the send queue now, but not more messages than the queue can hold. Then
  // it cuts an open stream off, posts a notice, and waits some seconds for the producer to read its
  // receipts.
  void finish(const Ending& ending);

 private:
  using Entry = orvane::ShmBatch::Entry;
  using Header = orvane::pvk_shm_message_t;

  // How many of a lease's receipts may still be unread.
  enum class Unread { few, none };

  struct Stream {
    StreamState state;
    std::unique_ptr<StreamFolder> folder;
    bool segmentHasData = false;     // the segment in progress
    std::uint64_t segmentBytes = 0;  // of all segments' data so far
  };

  void takeBatch(std::span<const unsigned char> message);
  void take(const Entry& entry);
  void open(const Header& header);
  void close(const Header& header, orvane::StreamEnd how);
  void storeRecord(const Entry& entry);
  void storeOutside(const Entry& entry);
  void countRecord(const Entry& entry);
  void countSegment();
  void countBatch(ox_status_t status);
  void flush();
  orvane::pvk_shm_response_t answer() const;

  void note(const Ox_ErrnoException& error);
  void logError(const char* function, const Ox_ErrnoException& error) const;
  void report(const char* function, const Ox_ErrnoException& error);
  void fail(const char* function, const Ox_ErrnoException& error);
  Ox_ErrnoException explained(const Ox_ErrnoException& error) const;
  void abandonStream(orvane::StreamEnd how, const std::string& reason, ox_status_t status = 0);
  orvane::Receipt concludeStream();
  void send(const orvane::LeaseReply& reply);
  bool mayTake();
  bool awaitReader(Unread wanted);
  void publishUnread();
  void postNotice(const std::string& reason);
  [[noreturn]] void giveUp(const std::string& reason, ox_status_t status);

  const orvane::server::Logger log{"worker"};
  const std::string queueName;
  const std::string loggedName;  // of the queue, with each % doubled
  BatchSource& source;
  tool::Totals& totals;
  Store& store;
  LeaseConnection* const lease;
  Capture capture;
  bool receiptsAwaited = false;  // no batch is received until some are read
  bool readerGivenUp = false;    // at the end: the producer does not read
  std::optional<Stream> stream;
  std::optional<Ox_ErrnoException>
      broken;  // of a broken stream, until its close, stop or the next open
  std::optional<Ox_ErrnoException> batchError;  // the first one in this batch
  bool outsideLogged = false;                   // a record outside a stream, since the last one
  std::uint64_t badBatches = 0;                 // refused since the start
  std::string lastReceipt;                      // empty while a stream is open
  Pause pause;
};

}  // namespace orvaned
