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
// batch is sent by the call whose record no longer fits; that call blocks, at most its timeout,
// only while the queue is full. The server's answers are picked up without waiting, one at each
// flush, so an error may surface at the flush of a later batch, or never when no flush follows it.
//
// One thread at a time. Errors are Ox_ErrnoException with the statuses of orvane/status.hpp or one
// of the server's own; those of Boost.Interprocess pass through as they are.
class ORVANE_API ShmWriter : public ChannelWriter {
 public:
  // Attaches to the queues `msgQueueName` and getMessageQueueResponseName(msgQueueName); sends
  // nothing. `name` is the stream's, used in messages, and may be empty. `timeout` is in seconds,
  // 1 to 86400 (else kStatusInvalidArgument); `stopTimeout` is the one of stop(true) and may be
  // anything. With `perfBenchmarkEnabled` records are dropped with a warning instead of sent.
  // Throws boost::interprocess::interprocess_exception when a queue is missing.
  ShmWriter(const std::string& name, const std::string& msgQueueName, unsigned int timeout,
            unsigned int stopTimeout, bool perfBenchmarkEnabled);

  // Ends the stream and sends what is pending. No effect on a writer that is not open. When it
  // throws, the writer is still open and the call may be repeated.
  void close() override;

  // Closes a writer that is still open, dropping every error, and detaches; the queues stay.
  // Blocks as close() does.
  ~ShmWriter() override;

  // Starts a stream: sends an open record at once. No effect on an open writer. After close() it
  // starts a new stream on the same queues. When it throws, the writer is not open; if the server's
  // answer was the cause, the open record was sent.
  void open() override;

  // Sets the segment state and its parameters for the records from the next one on. Any value is
  // stored; only the parameters' low 32 bits travel.
  void setSegmentAlg(orvane_seg_state_t state, unsigned long param1, unsigned long param2,
                     unsigned long param3) override;

  // Appends one record with `length` bytes of the current segment; does not flush, but sends the
  // batch first when the record does not fit any more. Throws kStatusNotOpen,
  // kStatusWrongAlgorithm, and what write_data throws; the record's sequence number is then used
  // up.
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

  // Appends the caller's own record: `header` as it stands and header->len bytes at `data` (may be
  // null when len is 0). `timeout` (seconds) bounds each send that the call makes: one when the
  // record does not fit, one more when `flush` asks for it. Throws
  //   kStatusSegmentTooLarge, nothing changed;
  //   kStatusDoesNotFit, the earlier records were sent, this one is not stored;
  //   kStatusTimedOut, the batch is kept: when it was full this record is not stored, with `flush`
  //     it is; call flush_shm_buffer() to try again, never this function with the same record;
  //   the server's status, the batch was sent: without `flush` this record is not stored.
  void write_data(const pvk_shm_message_t* header, const unsigned char* data, unsigned int timeout,
                  bool flush);

  // Sends the batch, an empty one too, waiting at most `timeout` seconds for room; empties it; then
  // takes at most one waiting answer. Throws kStatusTimedOut, the batch is kept; or the answer's
  // status and text, the batch was sent. The deadline is taken from the wall clock in whole
  // seconds, so the wait may end up to a second early.
  void flush_shm_buffer(unsigned int timeout);

 private:
  ORVANE_LOCAL void fillSegmentFields();
  ORVANE_LOCAL void sendEnd(std::uint32_t type, unsigned int sendTimeout);

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
