#pragma once

#include <pthread.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "orvane/lease.hpp"
#include "orvane/stream.hpp"
#include "ring/fork_count.hpp"
#include "stream/deadline.hpp"
#include "stream/one_user.hpp"
#include "stream/outcome.hpp"
#include "stream/room_watch.hpp"
#include "stream/state.hpp"

namespace orvane {

// A stream over a RingSender or a QueueSender. Senders throw Ox_ErrnoException; this class decides
// whether the stream is lost then. state_over_finish.hpp has its end.
template <typename Sender>
class Stream::StateOver final : public Stream::State {
 public:
  StateOver(std::unique_ptr<Lease> lease, unsigned int timeout)
      : lease(std::move(lease)),
        seconds(timeout),
        sender(*this->lease),
        largest(sender.largestRecord()) {}
  ~StateOver() override { stop(); }

  void write(const void* data, std::size_t size) override {
    const OneUser user(mark);
    // No record has no data, so 0 - 1 is larger than every size.
    if (size - 1 >= largest || data == nullptr || !isWriting() || isInForkedChild() ||
        !sender.tryAppend(data, static_cast<std::uint32_t>(size))) [[unlikely]] {
      const Buffer whole = {data, size};
      return writeOrThrow(&whole, 1);
    }
    count(size);
  }

  std::size_t write(const Buffer* buffers, std::size_t count, Wait wait) override;
  bool endSegment(Wait wait) override;
  bool flush(Wait wait) override;
  std::optional<Receipt> finish(Wait wait) override;
  bool wait(std::chrono::milliseconds limit) override;
  int fd() override;
  Transport transport() const override { return Sender::kTransport; }

 private:
  enum class Phase {
    writing,
    ending,   // the close record was appended
    ended,    // it was handed over
    finished  // there is a receipt
  };

  bool isInForkedChild() const { return ring::forkCount() != madeInFork; }
  bool isWriting() const { return phase == Phase::writing && !failure; }

  // Of a call that begins now.
  Deadline deadlineOf(Wait wait) {
    requireOwnProcess();
    if (watch) {
      watch->end();
    }
    return wait == Wait::yes ? Deadline(std::chrono::seconds(seconds)) : Deadline::passed();
  }

  void count(std::size_t size) {
    sent.bytes += size;
    segmentHasData = true;
  }
  void countSegment() { sent.segments += std::exchange(segmentHasData, false) ? 1 : 0; }

  [[gnu::noinline, gnu::cold]] void writeOrThrow(const Buffer* buffers, std::size_t count);
  std::size_t append(const Buffer* buffers, std::size_t count, const Deadline& deadline);
  bool append(const unsigned char* data, std::uint32_t size, const Deadline& deadline);
  bool awaitRoom(std::uint32_t size, const Deadline& deadline);
  std::optional<Receipt> finishBy(const Deadline& deadline);
  void stop();
  bool handOverEnd(const Deadline& deadline);
  bool awaitAnswers(const Deadline& deadline);
  void requireServer();

  // Runs a call of a stream that takes data. What a sender throws is the end of the stream.
  template <typename Call>
  auto whileWriting(const Call& call);
  void requireWriting() const;
  void requireOwnProcess() const;
  bool failWithoutRoom(Wait wait, std::size_t taken = 0) const;
  [[noreturn]] void lose(const StreamError& error) {
    failure = error;
    throw StreamError(error);
  }

  const std::unique_ptr<Lease> lease;
  const unsigned int seconds;
  const unsigned int madeInFork = ring::forkCount();
  Sender sender;
  const std::size_t largest;  // data bytes of a record
  Phase phase = Phase::writing;
  bool segmentHasData = false;
  SentTotals sent;
  std::optional<StreamError> failure;
  std::optional<Receipt> receipt;
  std::optional<RoomWatch> watch;  // once fd() was called
  [[no_unique_address]] OneUser::Mark mark{};
};

template <typename Sender>
void Stream::StateOver<Sender>::stop() {
  if (isInForkedChild()) {
    if (watch) {
      watch->forget();
    }
    sender.abandon();
    return;
  }
  constexpr std::chrono::seconds kLongest(1);
  // A thread that is cancelled here would unwind through a destructor, which ends the process.
  int cancelState = PTHREAD_CANCEL_ENABLE;
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancelState);
  try {
    const Deadline deadline(kLongest);
    if (isWriting() && sender.awaitRoom(0, deadline)) {
      sender.stop();
      sender.flush(deadline);
    }
  } catch (...) {
    // A destructor cannot report errors; the server then marks the stream as cut off.
  }
  sender.abandon();
  watch.reset();  // it waits for its thread
  pthread_setcancelstate(cancelState, nullptr);
}

template <typename Sender>
std::size_t Stream::StateOver<Sender>::write(const Buffer* buffers, std::size_t count, Wait wait) {
  const OneUser user(mark);
  if (wait == Wait::yes) {
    writeOrThrow(buffers, count);
    return 0;
  }
  return append(buffers, count, deadlineOf(wait));
}

template <typename Sender>
void Stream::StateOver<Sender>::writeOrThrow(const Buffer* buffers, std::size_t count) {
  const std::size_t taken = append(buffers, count, deadlineOf(Wait::yes));
  std::size_t size = 0;
  for (const Buffer* buffer = buffers; buffer != buffers + count; ++buffer) {
    size += buffer->size;
  }
  if (taken < size) {
    failWithoutRoom(Wait::yes, taken);
  }
}

template <typename Sender>
std::size_t Stream::StateOver<Sender>::append(const Buffer* buffers, std::size_t count,
                                              const Deadline& deadline) {
  return whileWriting([&] {
    for (const Buffer* buffer = buffers; buffer != buffers + count; ++buffer) {
      if (buffer->data == nullptr && buffer->size > 0) {
        throw StreamError(
            kStatusInvalidArgument,
            "The pointer to the data is NULL, but its size is " + std::to_string(buffer->size),
            Certainty::notStored);
      }
    }
    std::size_t taken = 0;
    for (const Buffer* buffer = buffers; buffer != buffers + count; ++buffer) {
      const auto* data = static_cast<const unsigned char*>(buffer->data);
      for (std::size_t left = buffer->size; left > 0;) {
        const auto size = static_cast<std::uint32_t>(std::min(left, largest));
        if (!append(data, size, deadline)) {
          return taken;
        }
        taken += size;
        data += size;
        left -= size;
      }
    }
    return taken;
  });
}

template <typename Sender>
bool Stream::StateOver<Sender>::append(const unsigned char* data, std::uint32_t size,
                                       const Deadline& deadline) {
  if (!sender.tryAppend(data, size)) {
    if (!awaitRoom(size, deadline)) {
      return false;
    }
    sender.tryAppend(data, size);
  }
  count(size);
  return true;
}

template <typename Sender>
bool Stream::StateOver<Sender>::awaitRoom(std::uint32_t size, const Deadline& deadline) {
  if (sender.awaitRoom(size, deadline)) {
    return true;
  }
  if (watch) {
    watch->begin(sender.headWithRoom());
  }
  return false;
}

template <typename Sender>
bool Stream::StateOver<Sender>::endSegment(Wait wait) {
  const OneUser user(mark);
  const bool hasEnded = whileWriting([&] {
    if (segmentHasData) {
      if (!awaitRoom(0, deadlineOf(wait))) {
        return false;
      }
      sender.endSegment();
      countSegment();
    }
    return true;
  });
  return hasEnded || failWithoutRoom(wait);
}

template <typename Sender>
bool Stream::StateOver<Sender>::flush(Wait wait) {
  const OneUser user(mark);
  const bool isHandedOver = whileWriting([&] {
    if (!sender.flush(deadlineOf(wait))) {
      return false;
    }
    requireServer();
    return true;
  });
  return isHandedOver || failWithoutRoom(wait);
}

// The connection shows the server's end, and why it has refused the stream.
template <typename Sender>
void Stream::StateOver<Sender>::requireServer() {
  if (awaitPacket(*lease, Deadline::passed())) {
    const Receipt early = lease->receipt(0);
    throw StreamError(kStreamIncomplete, "The server ended the stream: " + textOf(early),
                      Certainty::notStored);
  }
}

template <typename Sender>
bool Stream::StateOver<Sender>::wait(std::chrono::milliseconds limit) {
  constexpr std::chrono::hours kLongest(24);  // more might overflow
  const OneUser user(mark);
  requireOwnProcess();
  const Deadline deadline(std::min<std::chrono::milliseconds>(limit, kLongest));
  if (isWriting()) {
    return whileWriting(
        [&] { return sender.awaitRoom(static_cast<std::uint32_t>(largest), deadline); });
  }
  if (failure || receipt) {
    return true;  // the next call does not wait
  }
  return (phase != Phase::ending || handOverEnd(deadline)) && awaitAnswers(deadline) &&
         awaitPacket(*lease, deadline);
}

template <typename Sender>
int Stream::StateOver<Sender>::fd() {
  const OneUser user(mark);
  requireOwnProcess();
  try {
    if (!watch) {
      watch.emplace(lease->fd(), sender.ring());
    }
  } catch (const Ox_ErrnoException& e) {
    throw StreamError(e.status(), e.message(), Certainty::unknown);
  }
  return watch->fd();
}

template <typename Sender>
template <typename Call>
auto Stream::StateOver<Sender>::whileWriting(const Call& call) {
  requireWriting();
  try {
    return call();
  } catch (const StreamError& e) {
    if (e.status() != kStatusTimedOut && e.status() != kStatusInvalidArgument) {
      failure = e;
    }
    throw;
  } catch (const Ox_ErrnoException& e) {
    const Ox_ErrnoException reason = reasonFor(e, *lease);
    lose(StreamError(reason.status(), reason.message(), Certainty::notStored));
  }
}

template <typename Sender>
void Stream::StateOver<Sender>::requireWriting() const {
  requireOwnProcess();
  if (failure) {
    throw StreamError(*failure);
  }
  if (phase != Phase::writing) {
    throw StreamError(kStatusNotOpen, "The stream takes no more data: finish() was called",
                      receipt ? Certainty::stored : Certainty::unknown);
  }
}

template <typename Sender>
void Stream::StateOver<Sender>::requireOwnProcess() const {
  if (isInForkedChild()) {
    throw StreamError(kLeaseLost,
                      "A forked child cannot use the stream of its parent: open another one",
                      Certainty::unknown);
  }
}

// Returns false if the call may not wait.
template <typename Sender>
bool Stream::StateOver<Sender>::failWithoutRoom(Wait wait, std::size_t taken) const {
  if (wait == Wait::no) {
    return false;
  }
  throw StreamError(kStatusTimedOut,
                    "Timed out after waiting " + std::to_string(seconds) +
                        "s for room: the server is busy or was stopped",
                    Certainty::notStored, taken);
}

}  // namespace orvane
