#pragma once

#include <string>

#include "orvane/writer.hpp"
#include "support/queue_pair.hpp"

namespace orvane::test {

// A writer on its own queue pair.
struct Stream {
  struct Options {
    QueuePair::Geometry geometry = {};
    std::string name = "stream";
    unsigned int timeout = 7;
    unsigned int stopTimeout = 0;
    bool benchmark = false;
  };

  Stream() : Stream(Options()) {}
  explicit Stream(const Options& options)
      : pair(options.geometry),
        writer(options.name, pair.name(), options.timeout, options.stopTimeout, options.benchmark) {
  }

  // The records of the next message.
  std::vector<Record> sent() { return pair.receiveRecords(); }

  // Sends what the batch holds and returns it, leaving the writer's counters as they are.
  std::vector<Record> flushed() {
    writer.flush_shm_buffer(0);
    return sent();
  }

  // An open writer whose open message is out of the way.
  void open() {
    writer.open();
    pair.discardAll();
  }

  void write(const std::string& text) {
    writer.writeSegment(reinterpret_cast<const unsigned char*>(text.data()), text.size());
  }

  QueuePair pair;
  ShmWriter writer;
};

inline pvk_shm_message_t recordHeader(std::uint32_t type, std::uint32_t len,
                                      std::uint32_t segAlg = 0) {
  pvk_shm_message_t header;
  header.type = type;
  header.len = len;
  header.segAlg = segAlg;
  return header;
}

}  // namespace orvane::test
