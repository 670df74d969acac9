#pragma once

#include <cstdint>

#include "orvane/lease.hpp"
#include "orvane/writer.hpp"
#include "records/batch_append.hpp"
#include "ring/producer.hpp"
#include "stream/deadline.hpp"
#include "writer/record_steps.hpp"

namespace orvane {

// The records of one stream in the batches of a queue. The calls are those of RingSender.
class QueueSender {
 public:
  static constexpr Transport kTransport = Transport::queue;

  explicit QueueSender(const Lease& lease);

  std::uint32_t largestRecord() const { return largest; }

  [[gnu::always_inline]] bool tryAppend(const void* data, std::uint32_t len) {
    if (!RecordSteps::hasRoomFor(writer, len)) [[unlikely]] {
      return false;
    }
    RecordSteps::appendSegmentData(writer, static_cast<const unsigned char*>(data), len);
    return true;
  }

  bool awaitRoom(std::uint32_t len, const Deadline& deadline) {
    return RecordSteps::hasRoomFor(writer, len) || send(deadline);
  }

  void endSegment() { RecordSteps::endWith(writer, kRecordEndOfSegment, 0, false); }
  void close() { RecordSteps::endWith(writer, kRecordClose, 0, false); }
  void stop() { RecordSteps::endWith(writer, kRecordStop, 0, false); }

  // An empty batch would only ask for a response.
  bool flush(const Deadline& deadline) { return RecordSteps::hasNothing(writer) || send(deadline); }

  // Only the receipt shows what the server has answered.
  bool awaitAnswers(const Deadline& /*deadline*/) { return true; }
  bool isAnsweredWell() { return false; }

  const ring::Producer* ring() const { return nullptr; }
  std::uint64_t headWithRoom() const { return 0; }
  std::uint64_t headAfterAnswer() const { return 0; }

  // Nothing more is sent.
  void abandon() { RecordSteps::abandon(writer); }

 private:
  bool send(const Deadline& deadline);
  bool trySend(unsigned int seconds);
  void requireServer() const;

  const Lease& lease;
  ShmWriter writer;
  std::uint32_t largest;
};

}  // namespace orvane
