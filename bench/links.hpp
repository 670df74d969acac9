#pragma once

#include <cstddef>
#include <memory>

#include "link.hpp"

// How the peers' links are made; peers() says which of them there are.
namespace bench {

std::unique_ptr<Link> makePipe(std::size_t capacity);
std::unique_ptr<Link> makeUnixStream(std::size_t capacity);

std::size_t largestPacket();
std::unique_ptr<Link> makePackets(std::size_t capacity);
bool mayForceBuffers();
std::unique_ptr<Link> makeForcedPackets(std::size_t capacity);

std::size_t largestPosixMessage();
std::unique_ptr<Link> makePosixQueue(std::size_t capacity);

std::unique_ptr<Link> makeRing(std::size_t capacity);
std::unique_ptr<Link> makeZeroMq(std::size_t capacity);
std::unique_ptr<Link> makeNng(std::size_t capacity);
std::unique_ptr<Link> makeIceoryx(std::size_t capacity);

}  // namespace bench
