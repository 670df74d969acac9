#pragma once

// Everything orvane offers. Read in this order, the headers follow the data: a record, the batch
// that packs it, the writer that sends the batch, the reader that takes it apart; then what a
// server needs besides.

#include "orvane/export.hpp"

#include "orvane/status.hpp"

#include "orvane/records.hpp"

#include "orvane/batch.hpp"

#include "orvane/batch_view.hpp"

#include "orvane/channel.hpp"

#include "orvane/writer.hpp"

#include "orvane/queue_name.hpp"

#include "orvane/timeout.hpp"

#include "orvane/process_name.hpp"

#include "ox/errno_exception.hpp"
#include "ox/log.hpp"
#include "ox/sink.hpp"
#include "ox/status.hpp"
#include "ox/strings.hpp"
#include "ox/trace.hpp"
