#include "orvane/channel.hpp"

namespace orvane {

Channel::Channel(const std::string& channelName) : isOpen(false), name(channelName) {}
Channel::~Channel() = default;

ChannelWriter::ChannelWriter(const std::string& channelName) : Channel(channelName) {}
ChannelWriter::~ChannelWriter() = default;

}  // namespace orvane
