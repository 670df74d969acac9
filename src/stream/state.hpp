#pragma once

#include <chrono>
#include <cstddef>
#include <optional>

#include "orvane/stream.hpp"

namespace orvane {

// May a call wait for the server?
enum class Wait { no, yes };

// What the calls of a Stream do, over one transport.
class Stream::State {
 public:
  State() = default;
  virtual ~State() = default;
  State(const State&) = delete;
  State& operator=(const State&) = delete;

  virtual void write(const void* data, std::size_t size) = 0;

  // The following return less, false or nothing if the call may not wait and has to. If it may
  // wait, it throws after the stream's timeout.
  virtual std::size_t write(const Buffer* buffers, std::size_t count, Wait wait) = 0;
  virtual bool endSegment(Wait wait) = 0;
  virtual bool flush(Wait wait) = 0;
  virtual std::optional<Receipt> finish(Wait wait) = 0;

  virtual bool wait(std::chrono::milliseconds limit) = 0;
  virtual int fd() = 0;
  virtual Transport transport() const = 0;
};

}  // namespace orvane
