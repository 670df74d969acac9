// Byte streams: a pipe and a Unix stream socket. Each message follows its size in 4 bytes, gathered
// into one call; the receiver reads as much as there is.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstring>

#include "links.hpp"

namespace bench {
namespace {

constexpr int kLargestPipe = 1 << 20;  // of what anybody may ask for
constexpr std::size_t kLeastBuffer = 1 << 20;

using Ends = std::array<int, 2>;  // to read from, to write to

class StreamLink : public Link {
 public:
  StreamLink(Ends both, std::size_t capacity)
      : ends(both), message(capacity), input(kLeastBuffer + 2 * (capacity + sizeof(Size))) {}
  ~StreamLink() override {
    for (const int fd : ends) {
      close(fd);
    }
  }

  unsigned char* room() override { return message.data(); }
  void send(std::size_t size) override { send({message.data(), size}, {}); }
  void send(Bytes head, Bytes data) override;
  Bytes receive() override;

 private:
  using Size = std::uint32_t;

  bool take(Bytes& found);
  void readMore();

  const Ends ends;
  std::vector<unsigned char> message;
  std::vector<unsigned char> input;
  std::size_t begin = 0;  // of what is read and not taken
  std::size_t end = 0;
};

void StreamLink::send(Bytes head, Bytes data) {
  Size size = static_cast<Size>(head.size() + data.size());
  std::array<iovec, 3> pieces = {iovec{&size, sizeof size},
                                 iovec{const_cast<unsigned char*>(head.data()), head.size()},
                                 iovec{const_cast<unsigned char*>(data.data()), data.size()}};
  std::size_t left = sizeof size + head.size() + data.size();
  for (iovec* first = pieces.data(); left > 0;) {
    const ssize_t written =
        writev(ends[1], first, static_cast<int>(pieces.data() + pieces.size() - first));
    if (written < 0) {
      failWithErrno("cannot write");
    }
    left -= static_cast<std::size_t>(written);
    for (auto rest = static_cast<std::size_t>(written); left > 0;) {
      if (rest < first->iov_len) {
        first->iov_base = static_cast<unsigned char*>(first->iov_base) + rest;
        first->iov_len -= rest;
        break;
      }
      rest -= first->iov_len;
      ++first;
    }
  }
}

Bytes StreamLink::receive() {
  Bytes found;
  while (!take(found)) {
    readMore();
  }
  return found;
}

bool StreamLink::take(Bytes& found) {
  Size size = 0;
  if (end - begin < sizeof size) {
    return false;
  }
  std::memcpy(&size, &input[begin], sizeof size);
  if (end - begin < sizeof size + size) {
    return false;
  }
  found = {&input[begin + sizeof size], size};
  begin += sizeof size + size;
  return true;
}

void StreamLink::readMore() {
  std::memmove(input.data(), &input[begin], end - begin);
  end -= begin;
  begin = 0;
  const ssize_t count = read(ends[0], &input[end], input.size() - end);
  if (count <= 0) {
    failWithErrno("cannot read");
  }
  end += static_cast<std::size_t>(count);
}

}  // namespace

std::unique_ptr<Link> makePipe(std::size_t capacity) {
  Ends ends = {};
  if (pipe2(ends.data(), O_CLOEXEC) != 0 || fcntl(ends[1], F_SETPIPE_SZ, kLargestPipe) < 0) {
    failWithErrno("cannot make a pipe");
  }
  return std::make_unique<StreamLink>(ends, capacity);
}

std::unique_ptr<Link> makeUnixStream(std::size_t capacity) {
  Ends ends = {};
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
    failWithErrno("cannot make a socket pair");
  }
  return std::make_unique<StreamLink>(ends, capacity);
}

}  // namespace bench
