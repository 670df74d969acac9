#include "orvane/ring_writer.hpp"

#include <cstring>
#include <string_view>
#include <utility>

#include "orvane/process_name.hpp"
#include "orvane/timeout.hpp"
#include "records/batch_layout.hpp"
#include "ring/producer.hpp"
#include "writer/record_steps.hpp"

namespace orvane {

[[gnu::always_inline]] inline unsigned char* RingWriter::placeFor(const pvk_shm_message_t& record,
                                                                  unsigned int sendTimeout) {
  reserved = nullptr;
  if (!producer->isInForkedChild()) [[likely]] {
    if (unsigned char* const place = producer->placeInFrame(record.len)) [[likely]] {
      return place;
    }
  }
  return placeInNextFrame(record, sendTimeout);
}

[[gnu::noinline]] unsigned char* RingWriter::placeInNextFrame(const pvk_shm_message_t& record,
                                                              unsigned int sendTimeout) {
  requireOwnProcess();
  if (record.len > producer->largestRecord()) {
    producer->publish();
    fail(kStatusDoesNotFit, "Could not fit header (type=", record.type, ") with data length ",
         record.len, " into the batch, even after batch has been flushed");
  }
  unsigned char* const place = producer->place(record.len, sendTimeout);
  if (place == nullptr) {
    fail(kStatusTimedOut, "Timed out after waiting ", sendTimeout, "s to send data to ",
         OrvanedProcessName, name.empty() ? "" : " on stream ", name);
  }
  // The server's error does not keep a stream from its end; close() throws it then.
  if (record.type != kRecordClose) {
    throwError();
  }
  return place;
}

inline void RingWriter::append(unsigned char* place, const pvk_shm_message_t& record) {
  layout::writeHeader(place, record);
  producer->commit(record.len);
  lastMessageType = record.type;
}

RingWriter::RingWriter(const std::string& name, std::shared_ptr<ring::Producer> ring,
                       unsigned int timeout, unsigned int stopTimeout, bool perfBenchmarkEnabled)
    : ChannelWriter(name),
      producer(std::move(ring)),
      timeout(timeout),
      stopTimeout(stopTimeout),  // may be 0, to send a stop without waiting
      perfBenchmarkEnabled(perfBenchmarkEnabled) {
  const AutoTrace scope("RingWriter");
  validateTimeout(timeout);
  if (!producer) {
    fail(kStatusInvalidArgument,
         "This lease has a queue and no ring: give its queueName() to a ShmWriter");
  }
}

void RingWriter::open() {
  const AutoTrace scope("open");
  if (isOpen) {
    return;
  }
  // Otherwise this stream would get the errors of an earlier one.
  awaitAnswers(timeout);
  producer->discardAnswers();
  RecordSteps::fillOpen(*this);
  write_data(&header, nullptr, timeout, true);
  header.seqNo += 1;
  isOpen = true;
}

void RingWriter::close() {
  const AutoTrace scope("close");
  if (isOpen) {
    RecordSteps::endWith(*this, kRecordClose, timeout, false);
    isOpen = false;
    closing = true;
    producer->publish();
  }
  if (!closing) {
    return;
  }
  awaitAnswers(timeout);
  closing = false;
  throwError();
}

// It does not require an open writer and does not close it, as in ShmWriter.
void RingWriter::stop(bool useStopTimeout) {
  const AutoTrace scope("stop");
  RecordSteps::endWith(*this, kRecordStop, useStopTimeout ? stopTimeout : timeout, true);
}

void RingWriter::setSegmentAlg(orvane_seg_state_t state, unsigned long param1, unsigned long param2,
                               unsigned long param3) {
  reserved = nullptr;
  RecordSteps::setSegmentAlg(*this, state, param1, param2, param3);
}

void RingWriter::writeSegment(const unsigned char* data, unsigned long length) {
  RecordSteps::writeSegment(*this, data, length);
}

void RingWriter::endSegment() {
  RecordSteps::endSegment(*this);
}

unsigned char* RingWriter::reserve(unsigned long length) {
  const AutoTrace scope("reserve");
  RecordSteps::requireSegment(*this);
  pvk_shm_message_t record;
  record.type = kRecordSegmentData;
  record.len = static_cast<std::uint32_t>(length);
  record.segAlg = static_cast<std::uint32_t>(segAlg);
  RecordSteps::requireSize(record);
  reserved = placeFor(record, timeout) + layout::kHeaderSize;
  reservedLength = record.len;
  return reserved;
}

void RingWriter::commit(unsigned long length) {
  const AutoTrace scope("commit");
  requireOwnProcess();
  if (reserved == nullptr || length > reservedLength) {
    fail(kStatusInvalidArgument, "Cannot commit ", length,
         " bytes: ", reserved == nullptr ? 0 : reservedLength, " are reserved");
  }
  RecordSteps::fillSegmentData(*this, length);
  unsigned char* const place = reserved - layout::kHeaderSize;
  if (RecordSteps::admit(*this, header, timeout)) {
    append(place, header);
  }
  reserved = nullptr;
}

// Every record uses this function, except those of commit().
void RingWriter::write_data(const pvk_shm_message_t* record, const unsigned char* data,
                            unsigned int sendTimeout, bool flush) {
  const AutoTrace scope("write_data");
  if (!RecordSteps::admit(*this, *record, sendTimeout)) {
    return;
  }
  unsigned char* const place = placeFor(*record, sendTimeout);
  if (record->len > 0) {
    if (data == nullptr) {
      fail(kStatusInvalidArgument, "Invalid header; the specified length of data is ", record->len,
           " but the data pointer is NULL");
    }
    std::memcpy(place + layout::kHeaderSize, data, record->len);
  }
  append(place, *record);
  if (flush) {
    producer->publish();
    throwError();
  }
}

// Waits until the server has answered all that was handed over.
void RingWriter::awaitAnswers(unsigned int sendTimeout) {
  requireOwnProcess();
  if (!producer->awaitReleased(sendTimeout)) {
    fail(kStatusTimedOut, "Timed out after waiting ", sendTimeout, "s for an answer of ",
         OrvanedProcessName, name.empty() ? "" : " on stream ", name);
  }
}

void RingWriter::throwError() {
  if (const pvk_shm_response_t* error = producer->takeError()) {
    fail(error->status, std::string_view(error->text, strnlen(error->text, sizeof error->text)));
  }
}

void RingWriter::requireOwnProcess() const {
  if (producer->isInForkedChild()) {
    fail(kLeaseLost, "A forked child cannot use the lease of its parent: take another one");
  }
}

RingWriter::~RingWriter() {
  const AutoTrace scope("~RingWriter");
  if ((isOpen || closing) && !producer->isInForkedChild()) {
    RecordSteps::closeInDestructor(*this);
  }
}

}  // namespace orvane
