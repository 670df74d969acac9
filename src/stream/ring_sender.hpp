#pragma once

#include <chrono>
#include <cstdint>
#include <cstring>
#include <memory>

#include "orvane/lease.hpp"
#include "orvane/records.hpp"
#include "records/batch_layout.hpp"
#include "ring/producer.hpp"
#include "stream/deadline.hpp"
#include "writer/limits.hpp"
#include "writer/record_steps.hpp"

namespace orvane {

// The records of one stream in a ring. Each call returns false after its deadline, and then has
// changed nothing. It throws the first error that the server has answered with, or kLeaseLost.
class RingSender {
 public:
  static constexpr Transport kTransport = Transport::ring;

  // Opens the stream.
  explicit RingSender(const Lease& lease);

  std::uint32_t largestRecord() const { return kMaxSegmentSize; }

  // Appends one record of segment data, if the frame that is being built has room.
  [[gnu::always_inline]] bool tryAppend(const void* data, std::uint32_t len) {
    unsigned char* const place = producer->placeInFrame(len);
    if (place == nullptr) [[unlikely]] {
      return false;
    }
    std::memcpy(place + layout::kHeaderSize, data, len);
    RecordSteps::fillSegmentData(*this, len);
    append(place, header);
    return true;
  }

  // Waits until there is room for a record: the next call that appends one succeeds.
  bool awaitRoom(std::uint32_t len, const Deadline& deadline);

  // Need room for a record without data.
  void endSegment() { RecordSteps::endWith(*this, kRecordEndOfSegment, 0, false); }
  void close() { RecordSteps::endWith(*this, kRecordClose, 0, false); }
  void stop() { RecordSteps::endWith(*this, kRecordStop, 0, false); }

  // Hands over what was appended. If it throws a status of the server, that has happened too.
  bool flush(const Deadline& deadline);

  // Waits until the server has answered everything.
  bool awaitAnswers(const Deadline& deadline) { return producer->awaitReleased(deadline.left()); }

  // Has the server answered everything without an error? Then a stream that was closed is stored.
  bool isAnsweredWell() { return !refused && producer->takeError() == nullptr; }

  // What the stream's descriptor waits for. Only a ring has it.
  const ring::Producer* ring() const { return producer.get(); }
  std::uint64_t headWithRoom() const { return producer->headWithRoom(); }
  std::uint64_t headAfterAnswer() const { return producer->headAfterAnswer(); }

  // Nothing more is sent.
  void abandon() {}

 private:
  friend struct RecordSteps;

  [[gnu::always_inline]] void append(unsigned char* place, const pvk_shm_message_t& record) {
    layout::writeHeader(place, record);
    producer->commit(record.len);
  }
  void write_data(const pvk_shm_message_t* record, const unsigned char* data,
                  unsigned int sendTimeout, bool flush);
  void throwError();

  const std::shared_ptr<ring::Producer> producer;
  pvk_shm_message_t header;  // of the last record; each record changes some fields
  orvane_seg_state_t segAlg = kOrvaneSegBounded;
  std::uint64_t segParam1 = 0;
  std::uint64_t segParam2 = 0;
  std::uint64_t segParam3 = 0;
  bool refused = false;  // an error of the server was thrown
};

}  // namespace orvane
