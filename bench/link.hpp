#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace bench {

using Bytes = std::span<const unsigned char>;

// Moves messages one way, from one process to another. Made in the process that then forks both:
// one of them calls beSender() and sends, the other calls beReceiver() and receives.
class Link {
 public:
  Link() = default;
  virtual ~Link() = default;
  Link(const Link&) = delete;
  Link& operator=(const Link&) = delete;

  virtual void beSender() {}
  virtual void beReceiver() {}

  // In the receiver, after the last message.
  virtual void endReceiving() {}

  // In each of them, when every message has been received.
  virtual void leave() {}

  // Where the next message is built: in place, where the mechanism allows for it.
  virtual unsigned char* room() = 0;

  // Sends the first `size` bytes of it. Waits while the link is full, as all that follow.
  virtual void send(std::size_t size) = 0;

  // Sends a message that lies in two pieces; copied into room(), unless the mechanism gathers.
  virtual void send(Bytes head, Bytes data);

  // The next message; valid until the next call.
  virtual Bytes receive() = 0;
};

// A mechanism: how to make a link for messages of at most so many bytes.
struct Peer {
  std::string name;
  std::function<std::unique_ptr<Link>(std::size_t)> make;
  std::size_t largest = static_cast<std::size_t>(-1);  // message that it can carry here
  std::string missing = {};                            // why it was left out of this build
};

// What orvane is measured beside, the nearest first.
std::vector<Peer> peers();

// A peer's failure: `what` and errno's text.
[[noreturn]] void failWithErrno(const std::string& what);

// A name that no other process uses.
std::string uniqueName();

}  // namespace bench
