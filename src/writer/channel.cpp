#include "orvane/channel.hpp"

namespace orvane {

Channel::Channel(const std::string& name) : isOpen(false), name(name) {}
Channel::~Channel() = default;

ChannelWriter::ChannelWriter(const std::string& name) : Channel(name) {}
ChannelWriter::~ChannelWriter() = default;

}  // namespace orvane
