#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#if __cplusplus >= 202002L
#include <span>
#endif

#include "orvane/export.hpp"
#include "orvane/lease.hpp"
#include "orvane/receipt.hpp"
#include "orvane/status.hpp"

namespace orvane {

// What a Stream needs to know; all of it has a default. It is an aggregate:
//   Stream stream({.label = "app.log"});                            // C++20
//   StreamOptions options; options.label = "app.log"; Stream stream(options);  // C++17
struct StreamOptions {
  // The socket of the server. If it is empty, the stream uses the only
  // /run/orvaned/NAME/socket that there is. No environment variable is read.
  std::string socket = {};

  // The name under which people find the stream in the store, as Lease describes; may be empty.
  std::string label = {};

  // The longest that one call waits, in seconds, 1 to 86400. With a ring, a call ends at most 0.2 s
  // later. With a queue it ends up to 1 s earlier or 2 s later, because the queue's deadline has
  // whole seconds, and because the lock of a queue is awaited for up to 2 s.
  unsigned int timeout = 30;

  // How the data reaches the server, and the bytes of a ring, as Lease describes.
  Transport transport = Transport::automatic;
  std::uint64_t ringBytes = kDefaultRing;
};

// What is certain about the stream after a call has failed.
enum class Certainty {
  stored,     // the server has stored all of it; only its receipt is lost
  notStored,  // the store does not have all of it as a closed stream
  unknown     // finish() was called, and the server has not said what it has stored
};

// What every call of a Stream throws. Statuses and texts are those of status.hpp, of
// server_status.hpp, and of docs/behaviour.md.
class ORVANE_API StreamError : public Ox_ErrnoException {
 public:
  StreamError(ox_status_t status, const std::string& message, Certainty certainty,
              std::size_t taken = 0);
  StreamError(const StreamError&) noexcept;
  StreamError& operator=(const StreamError&) noexcept;
  ~StreamError() override;

  Certainty certainty() const noexcept;

  // The bytes that a write() took before it timed out. Data of at most kLargestWhole bytes is taken
  // as a whole or not at all.
  std::size_t taken() const noexcept;

 private:
  Certainty certainty_;
  std::size_t taken_;
};

// Sends one stream to the server, and knows what is stored of it.
//   Stream stream({.label = "app.log"});
//   stream.write(data, size);           // as often as there is data
//   Receipt stored = stream.finish();   // returns when everything is stored
//
// It takes a lease, chooses a ring or a queue, and repeats what may be repeated: a program needs no
// other call of this library. Data is collected and handed to the server in large pieces.
//
// After a timeout (kStatusTimedOut) the stream is as before, and the call may be made again. After
// any other failure of the server the stream is lost: each later call throws the same error, and
// another Stream has to send everything again. Wrong use (kStatusInvalidArgument, kStatusNotOpen)
// changes nothing.
//
// A Stream that is destroyed without finish() tells the server that it was given up: the store
// marks it as stopped. If the process dies, the store marks the stream as cut off.
//
// A Stream must not be shared by threads: one thread uses it at a time. A debug build of the
// library checks this by an assertion. In a forked child every call throws kLeaseLost, and the
// parent's stream is not affected. It sends no signals, and signals do not shorten its waits. Only
// fd() starts a thread. Link orvane::lease.
class ORVANE_API Stream {
 public:
  // A part of what one call writes.
  struct Buffer {
    const void* data;
    std::size_t size;
  };

  // Data of at most so many bytes becomes one record, or more records if a queue's messages are
  // smaller.
  static constexpr std::size_t kLargestWhole = 131072;

  // Starts a stream. Throws what Lease's constructor throws; kLeaseNoServer if no socket is given
  // and none or several match.
  Stream();
  explicit Stream(const StreamOptions& options);

  // Stops a stream that is not finished, and ignores every error. Waits at most 1 s.
  ~Stream();
  Stream(const Stream&) = delete;
  Stream& operator=(const Stream&) = delete;

  // Appends data of any length to the current segment. Waits while the ring or the queue is full.
  // After a timeout, StreamError::taken() says how much of the data was taken: write the rest.
  void write(const void* data, std::size_t size);
  void write(std::string_view text) { write(text.data(), text.size()); }
#if __cplusplus >= 202002L
  void write(std::span<const std::byte> bytes) {
    write(bytes.data(), bytes.size());
  }
  void write(std::span<const unsigned char> bytes) {
    write(bytes.data(), bytes.size());
  }
#endif

  // The same for several buffers, one after the other; taken() counts the bytes of all.
  void writeMany(const Buffer* buffers, std::size_t count);

  // Append what there is room for now, and return how many bytes were taken. They never wait for
  // room. A buffer of at most kLargestWhole bytes is taken as a whole or not at all, unless a
  // queue's messages are smaller than that.
  std::size_t tryWrite(const void* data, std::size_t size);
  std::size_t tryWriteMany(const Buffer* buffers, std::size_t count);

  // Ends the current segment; the next data starts another one, which the server stores as another
  // file. Has no effect if the segment has no data. tryEndSegment() does not wait for room, and
  // returns false if there is none.
  void endSegment();
  bool tryEndSegment();

  // Hands to the server what was written. Call it before a pause, so that the server does not wait
  // for more. Throws if the server has refused the stream or has ended. tryFlush() does not wait,
  // and returns false if there is no room.
  void flush();
  bool tryFlush();

  // Ends an open segment and the stream, and returns when everything is stored. If it throws,
  // StreamError::certainty() says what is certain. After Certainty::unknown and a timeout it may be
  // called again, and waits again. Called again after it has returned, it returns the same receipt.
  // tryFinish() does not wait, and returns nothing as long as there is no receipt.
  Receipt finish();
  std::optional<Receipt> tryFinish();

  // Waits until a call that begins with "try" may go on, after one that could not: until there is
  // room, or a receipt. Returns false if `limit` passes first, or a day. It is for a program that
  // looks at something else now and then, such as whether it was interrupted.
  bool wait(std::chrono::milliseconds limit);

  // A descriptor for poll() and epoll. It is readable when the receipt has come or the server has
  // ended. With a ring, it is readable as well when there is room again after a call that begins
  // with "try" has found none; a separate thread looks for that. With a queue, make such a call
  // again after a pause of 5 ms. Nothing else may be done with the descriptor, which belongs to the
  // stream.
  int fd();

  // What the stream uses: ring or queue.
  Transport transport() const;

 private:
  class ORVANE_LOCAL State;
  template <typename Sender>
  class ORVANE_LOCAL StateOver;

  std::unique_ptr<State> state;
};

}  // namespace orvane
