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
// The server owns the queue pair; the writer attaches to it by name. The writer owns its batch,
// which is as large as the queue's largest message. Records are copied into the batch before a call
// returns. When a record does not fit into the batch, the call sends the batch first. It waits
// while the queue is full, at most its timeout, and at most 2 s more for a lock that a stopped
// process holds. Each flush receives at most one of the server's responses and does not wait for
// it. So the flush of a later batch may throw an error, and an error after the last flush is never
// thrown.
//
// One thread uses a writer at a time. A forked child must end with _exit or exec: if it ended with
// exit, it would destroy its copy of the writer, and so send the pending records and a close record
// a second time. Errors are Ox_ErrnoException with a status of orvane/status.hpp or of the server;
// exceptions of Boost.Interprocess are not converted.
class ORVANE_API ShmWriter : public ChannelWriter {
 public:
  // Attaches to the queues `msgQueueName` and getMessageQueueResponseName(msgQueueName); sends
  // nothing. `name` is the stream's name in the texts of exceptions, and may be empty. `timeout` is
  // in seconds, 1 to 86400; another one throws kStatusInvalidArgument. `stopTimeout`, in seconds,
  // is for stop(true) and may have any value. With `perfBenchmarkEnabled`, records are dropped with
  // a warning and not sent. Throws boost::interprocess::interprocess_exception when a queue is
  // missing, or after 5 s when its creator has not finished it.
  ShmWriter(const std::string& name, const std::string& msgQueueName, unsigned int timeout,
            unsigned int stopTimeout, bool perfBenchmarkEnabled);

  // Ends the stream and sends what is pending. Has no effect on a writer that is not open. When it
  // throws, the writer is still open and the call may be repeated. After a timeout, the close
  // record is in the batch, and a repeated call adds a second one. But if the batch had no room for
  // the record, and the flush that makes room failed, the record is not in the batch.
  void close() override;

  // Closes a writer that is still open, ignores every error, and detaches from the queues, which
  // stay. Blocks as close() does.
  ~ShmWriter() override;

  // Starts a stream: sends an open record at once. Has no effect on an open writer. After close()
  // it starts a new stream on the same queues. When it throws, the writer is not open and the call
  // may be repeated. If the server's response was the cause, the open record was sent. After a
  // timeout, the open record is in the batch, and a repeated call adds a second one. If the flush
  // that makes room for the record failed, the record is neither sent nor in the batch.
  void open() override;

  // Sets the segment state and its parameters, which the following records carry. Any value is
  // stored; records carry only the low 32 bits of the parameters.
  void setSegmentAlg(orvane_seg_state_t state, unsigned long param1, unsigned long param2,
                     unsigned long param3) override;

  // Appends one record with `length` bytes of the current segment. Sends the batch first if the
  // record does not fit; otherwise sends nothing. If it throws kStatusNotOpen or
  // kStatusWrongAlgorithm, nothing has changed. It also throws what write_data throws; then the
  // record's sequence number is used up.
  void writeSegment(const unsigned char* data, unsigned long length) override;

  // Appends the record that ends the current segment, unless the last record already ended one.
  // Sends as writeSegment does. Throws kStatusNotOpen, or what write_data throws.
  void endSegment() override;

  // Aborts the stream: sends a stop record and what is pending, and waits at most `stopTimeout`
  // seconds, or `timeout` seconds if `useStopTimeout` is false. The writer does not have to be
  // open. An open writer stays open: it still accepts segments, and its destructor still sends a
  // close record.
  void stop(bool useStopTimeout) override;

  // Returns 131072, the largest number of data bytes in a record whose segAlg is not
  // kOrvaneSegUnbounded.
  static unsigned long getMaxSegmentSize();

  // Appends the caller's own record: `*record` as it is when the call begins, and record->len bytes
  // at `data`, which may be null if len is 0. If the record does not fit, the call sends the batch
  // first; with `flush` it also sends the batch afterwards. Each of these waits at most
  // `sendTimeout` seconds. Throws
  //   kStatusSegmentTooLarge, nothing has changed;
  //   kStatusInvalidArgument, `data` is null and len is not 0: the record is not stored, and
  //     earlier records may have been sent;
  //   kStatusDoesNotFit, the record is not stored, and the earlier records were sent;
  //   kStatusTimedOut, the batch is kept;
  //   the server's status, the batch was sent.
  // Without `flush` the last two mean that this record is not stored: flush, and write it again.
  // With `flush` either send may have failed, and the exception does not show which one. A caller
  // that needs to know passes false and then calls flush_shm_buffer().
  void write_data(const pvk_shm_message_t* record, const unsigned char* data,
                  unsigned int sendTimeout, bool flush);

  // Sends the batch, also an empty one, and waits at most `sendTimeout` seconds for room in the
  // queue. Then empties the batch and receives at most one response, without waiting for it. Throws
  // kStatusTimedOut, and keeps the batch; or the response's status and text, after the batch was
  // sent. The deadline is in whole seconds of the wall clock, so the wait may end up to a second
  // early.
  void flush_shm_buffer(unsigned int sendTimeout);

 private:
  friend struct RecordSteps;

  ORVANE_LOCAL void appendAfterFlush(const pvk_shm_message_t& record, const unsigned char* data,
                                     unsigned int sendTimeout);

  std::string msgQueueName;
  unsigned int timeout;
  unsigned int stopTimeout;
  bool perfBenchmarkEnabled;
  pvk_shm_message_t header;  // the last record's; each record changes some of its fields
  pvk_shm_response_t response;
  std::unique_ptr<boost::interprocess::message_queue> sendQueue;
  std::unique_ptr<boost::interprocess::message_queue> responseQueue;
  std::unique_ptr<ShmBatch> batch;
  std::uint32_t lastMessageType = kRecordStop;  // the type of the last record in the batch or sent
  bool segmentFirstWrite = true;  // always true: see requireSegment in record_steps.hpp
  // The state that a stream's records would have to share.
  orvane_seg_state_t lastSegmentState = kOrvaneSegBounded;
  orvane_seg_state_t segAlg = kOrvaneSegBounded;
  std::uint64_t segParam1 = 0;
  std::uint64_t segParam2 = 0;
  std::uint64_t segParam3 = 0;
};

}  // namespace orvane
