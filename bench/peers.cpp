#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <system_error>

#include "links.hpp"

namespace bench {

void Link::send(Bytes head, Bytes data) {
  unsigned char* const target = room();
  std::memcpy(target, head.data(), head.size());
  if (!data.empty()) {
    std::memcpy(target + head.size(), data.data(), data.size());
  }
  send(head.size() + data.size());
}

std::vector<Peer> peers() {
  std::vector<Peer> all = {
      {"pipe", makePipe},
      {"Unix stream", makeUnixStream},
      {"SEQPACKET", makePackets, largestPacket()},
      {"POSIX queue", makePosixQueue, largestPosixMessage()},
  };
  Peer forced{"SEQPACKET, forced buffers", makeForcedPackets};
  if (!mayForceBuffers()) {
    forced.missing = "SO_SNDBUFFORCE needs root";
  }
  all.push_back(forced);
  all.push_back({"lock-free ring", makeRing});
#ifdef BENCH_ZEROMQ
  all.push_back({"ZeroMQ", makeZeroMq});
#else
  all.push_back({.name = "ZeroMQ", .make = {}, .missing = "libzmq3-dev is not installed"});
#endif
#ifdef BENCH_NNG
  all.push_back({"nng", makeNng});
#else
  all.push_back({.name = "nng", .make = {}, .missing = "libnng-dev is not installed"});
#endif
#ifdef BENCH_ICEORYX
  // Its daemon has thirty chunks of 1 MiB; of larger ones it has ten, which are too few when eight
  // messages are on their way. A chunk begins with the message's size.
  all.push_back({"iceoryx", makeIceoryx, (std::size_t{1} << 20) - sizeof(std::uint64_t)});
#else
  all.push_back({.name = "iceoryx", .make = {}, .missing = "libiceoryx-posh-dev is not installed"});
#endif
  return all;
}

void failWithErrno(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

std::string uniqueName() {
  static int count = 0;
  return "orvane-bench-" + std::to_string(getpid()) + "-" + std::to_string(++count);
}

}  // namespace bench
