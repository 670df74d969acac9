#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "orvane/channel.hpp"
#include "orvane/export.hpp"
#include "orvane/records.hpp"

namespace orvane {

namespace ring {
class Producer;  // the end of a lease's ring that a writer uses
}

// Sends one stream of records to the server through the ring of a lease.
//   Lease lease("/run/orvaned/orders/socket", 5, Transport::ring);
//   RingWriter writer("backup", lease.ring(), 30, 5, false);
//   writer.open();
//   writer.writeSegment(data, size);  // as often as there is data
//   writer.endSegment();
//   writer.close();                   // returns when the stream is stored
//
// It makes the same records as ShmWriter and throws the same statuses and texts. These are the
// differences:
// - Records are built where the server reads them. reserve() gives the place itself, so that data
//   is never copied.
// - There is no lock. While the ring is full, a call waits at most its timeout, and up to 0.2 s
//   longer. It uses no wall clock.
// - Each flush receives all responses that are there, and throws the first error.
// - close() waits until the server has answered. When it returns, the stream is stored.
// - kLeaseLost is thrown when the server has ended the lease.
//
// One thread uses a writer at a time, and a lease has one writer at a time; another one may follow.
// Destroy it before the lease. In a forked child, every call throws kLeaseLost and the destructor
// does nothing. Link orvane::lease.
class ORVANE_API RingWriter : public ChannelWriter {
 public:
  // `ring` is Lease::ring(); the other parameters are those of ShmWriter. Throws
  // kStatusInvalidArgument for a timeout that is not 1 to 86400, or without a ring.
  RingWriter(const std::string& name, std::shared_ptr<ring::Producer> ring, unsigned int timeout,
             unsigned int stopTimeout, bool perfBenchmarkEnabled);

  // Starts a stream: sends an open record at once. Waits first, at most `timeout`, until the server
  // has answered everything that was sent before. When it throws, the writer is not open and the
  // call may be repeated.
  void open() override;

  // As in ShmWriter.
  void setSegmentAlg(orvane_seg_state_t state, unsigned long param1, unsigned long param2,
                     unsigned long param3) override;
  void writeSegment(const unsigned char* data, unsigned long length) override;

  // Returns a place in the ring for up to `length` bytes of the current segment, which the caller
  // fills before it calls commit(). Waits for room as writeSegment does, and throws what that call
  // throws; nothing has changed then. The place is valid until the next call.
  unsigned char* reserve(unsigned long length);

  // Appends the first `length` bytes at the reserved place, at most as many as were reserved, or
  // none. Throws kStatusInvalidArgument without a reserved place of that size.
  void commit(unsigned long length);

  // As in ShmWriter.
  void endSegment() override;
  void stop(bool useStopTimeout) override;

  // Ends the stream, and waits at most `timeout` for the server's answer. Has no effect on a writer
  // that is not open. Throws kStatusTimedOut or the server's status. After the server's status the
  // writer is not open, because the server has ended the stream. After kStatusTimedOut the stream
  // takes no more data if its end was sent, and the call may be repeated: it waits again.
  void close() override;

  // Closes a writer that is still open, and ignores every error. Blocks as close() does.
  ~RingWriter() override;

 private:
  friend struct RecordSteps;

  ORVANE_LOCAL void write_data(const pvk_shm_message_t* record, const unsigned char* data,
                               unsigned int sendTimeout, bool flush);
  ORVANE_LOCAL unsigned char* placeFor(const pvk_shm_message_t& record, unsigned int sendTimeout);
  ORVANE_LOCAL unsigned char* placeInNextFrame(const pvk_shm_message_t& record,
                                               unsigned int sendTimeout);
  ORVANE_LOCAL void append(unsigned char* place, const pvk_shm_message_t& record);
  ORVANE_LOCAL void throwError();
  ORVANE_LOCAL void awaitAnswers(unsigned int sendTimeout);
  ORVANE_LOCAL void requireOwnProcess() const;

  std::shared_ptr<ring::Producer> producer;
  unsigned int timeout;
  unsigned int stopTimeout;
  bool perfBenchmarkEnabled;
  pvk_shm_message_t header;  // of the last record; each record changes some fields
  std::uint32_t lastMessageType = kRecordStop;  // the type of the last record
  bool segmentFirstWrite = true;                // always true, as in ShmWriter
  // The state that a stream's records would have to share.
  orvane_seg_state_t lastSegmentState = kOrvaneSegBounded;
  orvane_seg_state_t segAlg = kOrvaneSegBounded;
  std::uint64_t segParam1 = 0;
  std::uint64_t segParam2 = 0;
  std::uint64_t segParam3 = 0;
  unsigned char* reserved = nullptr;  // the place of reserve(), until the next call
  std::uint64_t reservedLength = 0;
  bool closing = false;  // not open any more, and the answer to the close record is awaited
};

}  // namespace orvane
