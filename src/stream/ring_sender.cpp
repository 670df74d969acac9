#include "stream/ring_sender.hpp"

#include <string_view>

#include "records/failure.hpp"

namespace orvane {

RingSender::RingSender(const Lease& lease) : producer(lease.ring()) {
  RecordSteps::fillOpen(*this);
  producer->place(0, Deadline::passed().left());  // a new ring has room
  write_data(&header, nullptr, 0, true);
  header.seqNo += 1;
}

bool RingSender::awaitRoom(std::uint32_t len, const Deadline& deadline) {
  const bool hasRoom = producer->place(len, deadline.left()) != nullptr;
  throwError();
  return hasRoom;
}

bool RingSender::flush(const Deadline& /*deadline*/) {
  producer->publish();
  throwError();
  return true;
}

void RingSender::write_data(const pvk_shm_message_t* record, const unsigned char* /*data*/,
                            unsigned int /*sendTimeout*/, bool flush) {
  append(producer->placeInFrame(0), *record);
  if (flush) {
    producer->publish();
  }
}

void RingSender::throwError() {
  if (const pvk_shm_response_t* error = producer->takeError()) {
    refused = true;
    fail(error->status, std::string_view(error->text, strnlen(error->text, sizeof error->text)));
  }
}

}  // namespace orvane
