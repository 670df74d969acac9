#pragma once

// All public headers. Their order follows the data: a record, the batch that packs it, the reader
// of a received batch, the writer that sends it, the lease that gives a writer its queue or its
// ring, and the stream, which does all of this (link orvane::lease for these two). The headers
// after that are for servers.

// clang-format off
#include "orvane/export.hpp"
#include "orvane/status.hpp"
#include "orvane/records.hpp"
#include "orvane/batch.hpp"
#include "orvane/batch_view.hpp"
#include "orvane/channel.hpp"
#include "orvane/writer.hpp"
#include "orvane/queue_name.hpp"
#include "orvane/timeout.hpp"
#include "orvane/receipt.hpp"
#include "orvane/lease.hpp"
#include "orvane/ring_writer.hpp"
#include "orvane/stream.hpp"
#include "orvane/process_name.hpp"

#include "orvane/escaped_text.hpp"
#include "orvane/lease_protocol.hpp"
#include "orvane/ring_reader.hpp"
#include "orvane/server_status.hpp"
#include "orvane/logger.hpp"
#include "orvane/server_info.hpp"
#include "orvane/unique_id_generator.hpp"
#include "orvane/auto_lock.hpp"
// clang-format on

#include "ox/errno_exception.hpp"
#include "ox/log.hpp"
#include "ox/sink.hpp"
#include "ox/status.hpp"
#include "ox/strings.hpp"
#include "ox/trace.hpp"
