#pragma once

#include <boost/interprocess/interprocess_fwd.hpp>
#include <cstdint>
#include <memory>
#include <string>

#include "orvane/batch.hpp"
#include "orvane/channel.hpp"
#include "orvane/export.hpp"
#include "orvane/records.hpp"

namespace orvane {

// Sends one stream of records to the server, in batches, through a queue in shared memory.
//   ShmWriter writer("backup", "orders", 30, 5, false);
//   writer.open();
//   writer.writeSegment(data, size);  // as often as there is data
//   writer.endSegment();
//   writer.close();                   // sends what is still in the batch
//
// The server owns the queue pair; the writer attaches to it by name and owns its batch, as large as
// the queue's largest message. Records are copied into the batch before a call returns. A full
// batch is sent by the call whose record no longer fits; that call waits, at most its timeout,
// while the queue is full, and at most 2 s more for a lock that a stopped process holds. The
// server's answers are picked up without waiting, one at each flush, so an error may surface at the
// flush of a later batch, or never when no flush follows it.
//
// One thread at a time. A forked child must end with _exit or exec: ending with exit, it would
// destroy its copy of the writer, which sends the pending records and a close a second time.
// Errors are Ox_ErrnoException with the statuses of orvane/status.hpp or one of the server's own;
// those of Boost.Interprocess pass through as they are.
class ORVANE_API ShmWriter : public ChannelWriter {
 public:
  // Attaches to the queues `msgQueueName` and getMessageQueueResponseName(msgQueueName); sends
  // nothing. `name` is the stream's, used in messages, and may be empty. `timeout` is in seconds,
  // 1 to 86400 (else kStatusInvalidArgument); `stopTimeout` is the one of stop(true) and may be
  // anything. With `perfBenchmarkEnabled` records are dropped with a warning instead of sent.
  // Throws boost::interprocess::interprocess_exception when a queue is missing, or after 5 s when
  // its creator has not finished it.
  ShmWriter(const std::string& name, const std::string& msgQueueName, unsigned int timeout,
            unsigned int stopTimeout, bool perfBenchmarkEnabled);

  // Ends the stream and sends what is pending. No effect on a writer that is not open. When it
  // throws, the writer is still open and the call may be repeated; after a time-out the batch holds
  // both close records then, unless there was no room for the first one: when the flush that makes
  // room fails, the record is not in the batch.
  void close() override;

  // Closes a writer that is still open, dropping every error, and detaches; the queues stay.
  // Blocks as close() does.
  ~ShmWriter() override;

  // Starts a stream: sends an open record at once. No effect on an open writer. After close() it
  // starts a new stream on the same queues. When it throws, the writer is not open and the call may
  // be repeated; if the server's answer was the cause, the open record was sent, and after a
  // time-out the batch holds both. When the flush that makes room for the record fails, it is
  // neither sent nor in the batch.
  void open() override;

  // Sets the segment state and its parameters for the records from the next one on. Any value is
  // stored; only the parameters' low 32 bits travel.
  void setSegmentAlg(orvane_seg_state_t state, unsigned long param1, unsigned long param2,
                     unsigned long param3) override;

  // Appends one record with `length` bytes of the current segment; does not flush, but sends the
  // batch first when the record does not fit any more. Throws kStatusNotOpen and
  // kStatusWrongAlgorithm, nothing changed; and what write_data throws, which uses the record's
  // sequence number up.
  void writeSegment(const unsigned char* data, unsigned long length) override;

  // Ends the current segment, unless the last record was already an end; does not flush. Throws
  // kStatusNotOpen and what write_data throws.
  void endSegment() override;

  // Aborts the stream: sends a stop record and what is pending, waiting `stopTimeout` or else
  // `timeout` seconds. Neither asks whether the writer is open nor closes it: segments are still
  // accepted and the destructor still sends a close.
  void stop(bool useStopTimeout) override;

  // The largest data length of one record, unless its segAlg is kOrvaneSegUnbounded: 131072 bytes.
  static unsigned long getMaxSegmentSize();

  // Appends the caller's own record: `header` as it stands when the call begins and header->len
  // bytes at `data` (may be null when len is 0). `timeout` (seconds) bounds each send that the call
  // makes: one when the record does not fit, one more when `flush` asks for it. Throws
  //   kStatusSegmentTooLarge, nothing changed;
  //   kStatusInvalidArgument, null data with a len: not stored, earlier records may have been sent;
  //   kStatusDoesNotFit, not stored, the earlier records were sent;
  //   kStatusTimedOut, the batch is kept;
  //   the server's status, the batch was sent.
  // Without `flush` the last two mean that this record is not stored: it may be written again,
  // after a flush. With `flush` they may come from either send and do not tell which; who needs to
  // know calls with `flush` false and then flush_shm_buffer().
  void write_data(const pvk_shm_message_t* header, const unsigned char* data, unsigned int timeout,
                  bool flush);

  // Sends the batch, an empty one too, waiting at most `timeout` seconds for room; empties it; then
  // takes at most one waiting answer. Throws kStatusTimedOut, the batch is kept; or the answer's
  // status and text, the batch was sent. The deadline is taken from the wall clock in whole
  // seconds, so the wait may end up to a second early.
  void flush_shm_buffer(unsigned int timeout);

 private:
  ORVANE_LOCAL void fillSegmentFields();
  ORVANE_LOCAL void appendAfterFlush(const pvk_shm_message_t& record, const unsigned char* data,
                                     unsigned int sendTimeout);
  ORVANE_LOCAL void endWith(std::uint32_t type, unsigned int sendTimeout, bool flush);

  std::string msgQueueName;
  unsigned int timeout;
  unsigned int stopTimeout;
  bool perfBenchmarkEnabled;
  pvk_shm_message_t header;
  pvk_shm_response_t response;
  std::unique_ptr<boost::interprocess::message_queue> sendQueue;
  std::unique_ptr<boost::interprocess::message_queue> responseQueue;
  std::unique_ptr<ShmBatch> batch;
  std::uint32_t lastMessageType;
  bool segmentFirstWrite;
  orvane_seg_state_t lastSegmentState;
  orvane_seg_state_t segAlg;
  std::uint64_t segParam1;
  std::uint64_t segParam2;
  std::uint64_t segParam3;
};

}  // namespace orvane
