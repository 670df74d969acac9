#include "orvane/stream.hpp"

#include <utility>

#include "stream/queue_sender.hpp"
#include "stream/ring_sender.hpp"
#include "stream/socket_search.hpp"
#include "stream/state.hpp"
#include "stream/state_over.hpp"
#include "stream/state_over_finish.hpp"

namespace orvane {

namespace {

constexpr char kServersFolder[] = "/run/orvaned";

std::unique_ptr<Lease> leaseFor(const StreamOptions& options) {
  return std::make_unique<Lease>(
      options.socket.empty() ? onlySocketIn(kServersFolder) : options.socket, options.timeout,
      options.transport, options.ringBytes, options.label);
}

}  // namespace

StreamError::StreamError(ox_status_t status, const std::string& message, Certainty certainty,
                         std::size_t taken)
    : Ox_ErrnoException(status, message, ""), certainty_(certainty), taken_(taken) {}
StreamError::StreamError(const StreamError&) noexcept = default;
StreamError& StreamError::operator=(const StreamError&) noexcept = default;
StreamError::~StreamError() = default;

Certainty StreamError::certainty() const noexcept {
  return certainty_;
}
std::size_t StreamError::taken() const noexcept {
  return taken_;
}

Stream::Stream() : Stream(StreamOptions()) {}

Stream::Stream(const StreamOptions& options) {
  try {
    auto lease = leaseFor(options);
    if (lease->ring() != nullptr) {
      state = std::make_unique<StateOver<RingSender>>(std::move(lease), options.timeout);
    } else {
      state = std::make_unique<StateOver<QueueSender>>(std::move(lease), options.timeout);
    }
  } catch (const Ox_ErrnoException& e) {
    throw StreamError(e.status(), e.message(), Certainty::notStored);
  }
}

Stream::~Stream() = default;

void Stream::write(const void* data, std::size_t size) {
  state->write(data, size);
}

void Stream::writeMany(const Buffer* buffers, std::size_t count) {
  state->write(buffers, count, Wait::yes);
}

std::size_t Stream::tryWrite(const void* data, std::size_t size) {
  const Buffer whole = {data, size};
  return state->write(&whole, 1, Wait::no);
}

std::size_t Stream::tryWriteMany(const Buffer* buffers, std::size_t count) {
  return state->write(buffers, count, Wait::no);
}

void Stream::endSegment() {
  state->endSegment(Wait::yes);
}

bool Stream::tryEndSegment() {
  return state->endSegment(Wait::no);
}

void Stream::flush() {
  state->flush(Wait::yes);
}

bool Stream::tryFlush() {
  return state->flush(Wait::no);
}

Receipt Stream::finish() {
  return *state->finish(Wait::yes);
}

std::optional<Receipt> Stream::tryFinish() {
  return state->finish(Wait::no);
}

bool Stream::wait(std::chrono::milliseconds limit) {
  return state->wait(limit);
}

int Stream::fd() {
  return state->fd();
}

Transport Stream::transport() const {
  return state->transport();
}

}  // namespace orvane
