#pragma once

#include "command_line/nats_options.hpp"
#include "store/stream_choice.hpp"

namespace forward {

// `orvane streams --nats`: lists the streams of a cluster, the newest last.
void listStreams(const tool::NatsOptions& options, const tool::StreamChoice& choice);

}  // namespace forward
