#include "orvane/stream.hpp"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <new>
#include <optional>
#include <string>

#include "c/call.hpp"
#include "c/receipt.hpp"
#include "orvane/orvane.h"

using orvane::Certainty;
using orvane::Stream;
using orvane::Transport;

static_assert(ORVANE_TRANSPORT_QUEUE == static_cast<int>(Transport::queue) &&
              ORVANE_TRANSPORT_RING == static_cast<int>(Transport::ring) &&
              ORVANE_TRANSPORT_AUTOMATIC == static_cast<int>(Transport::automatic));
static_assert(ORVANE_CERTAINTY_STORED == static_cast<int>(Certainty::stored) &&
              ORVANE_CERTAINTY_NOT_STORED == static_cast<int>(Certainty::notStored) &&
              ORVANE_CERTAINTY_UNKNOWN == static_cast<int>(Certainty::unknown));
// So that buffers need not be copied.
static_assert(sizeof(orvane_buffer) == sizeof(Stream::Buffer) &&
              offsetof(orvane_buffer, data) == offsetof(Stream::Buffer, data) &&
              offsetof(orvane_buffer, size) == offsetof(Stream::Buffer, size));

struct orvane_stream {
  std::optional<Stream> stream;
  orvane::c::Failure failure;
};

namespace {

constexpr char kNoRoom[] = "There is no room now";
constexpr char kNotYet[] = "There is neither room nor a receipt yet";
constexpr char kNoReceipt[] = "There is no receipt yet";

// Makes a call on the stream of a handle that was opened.
template <typename Call>
int on(orvane_stream* handle, const Call& call) {
  if (handle == nullptr) {
    return ORVANE_INVALID_ARGUMENT;
  }
  if (!handle->stream) {
    return handle->failure.status();
  }
  return statusOf(handle->failure, [&] { return call(*handle->stream); });
}

int unlessDone(orvane_stream* handle, bool isDone, const char* message, Certainty certainty) {
  return isDone ? ORVANE_OK : handle->failure.set(ORVANE_TIMED_OUT, message, certainty);
}

// Throws if the library would have to ignore something that the program has set.
void requireKnown(const orvane_stream_options& given) {
  constexpr std::size_t kFirstRelease = offsetof(orvane_stream_options, ring_bytes) + 8;
  constexpr std::size_t kLargest = 4096;  // a larger size was never set
  if (given.size < kFirstRelease || given.size > kLargest) {
    throw orvane::StreamError(ORVANE_INVALID_ARGUMENT,
                              "The size of the options is " + std::to_string(given.size) +
                                  ": fill them in with orvane_stream_options_init()",
                              Certainty::notStored);
  }
  const auto* const bytes = reinterpret_cast<const unsigned char*>(&given);
  if (given.size > sizeof given && std::any_of(bytes + sizeof given, bytes + given.size,
                                               [](unsigned char byte) { return byte != 0; })) {
    throw orvane::StreamError(ORVANE_INVALID_ARGUMENT,
                              "This release of liborvane_c does not know one of the options: "
                              "install the release that the program was compiled with",
                              Certainty::notStored);
  }
}

orvane::StreamOptions optionsOf(const orvane_stream_options* given) {
  orvane_stream_options options;
  orvane_stream_options_init(&options, sizeof options);
  if (given != nullptr) {
    requireKnown(*given);
    std::memcpy(&options, given, std::min(given->size, sizeof options));
  }
  if (options.transport < ORVANE_TRANSPORT_QUEUE ||
      options.transport > ORVANE_TRANSPORT_AUTOMATIC) {
    throw orvane::StreamError(ORVANE_INVALID_ARGUMENT,
                              "There is no transport " + std::to_string(options.transport),
                              Certainty::notStored);
  }
  orvane::StreamOptions result;
  result.socket = options.socket != nullptr ? options.socket : "";
  result.label = options.label != nullptr ? options.label : "";
  result.timeout = options.timeout;
  result.transport = static_cast<Transport>(options.transport);
  result.ringBytes = options.ring_bytes;
  return result;
}

// `write` makes the call and returns how much was taken. Of a failed call, the error knows it.
template <typename Write>
int writeTo(orvane_stream* handle, size_t* taken, const Write& write) {
  size_t count = 0;
  const int status = on(handle, [&](Stream& stream) {
    try {
      count = write(stream);
    } catch (const orvane::StreamError& e) {
      count = e.taken();
      throw;
    }
    return ORVANE_OK;
  });
  if (taken != nullptr) {
    *taken = count;
  }
  return status;
}

const Stream::Buffer* checked(const orvane_buffer* buffers, size_t count) {
  if (buffers == nullptr && count > 0) {
    throw orvane::StreamError(
        ORVANE_INVALID_ARGUMENT,
        "The pointer to the buffers is NULL, but there are " + std::to_string(count),
        Certainty::notStored);
  }
  return reinterpret_cast<const Stream::Buffer*>(buffers);
}

size_t sizeOf(const orvane_buffer* buffers, size_t count) {
  size_t size = 0;
  for (size_t i = 0; i < count; ++i) {
    size += buffers[i].size;
  }
  return size;
}

}  // namespace

extern "C" {

orvane_stream_options* orvane_stream_options_init(orvane_stream_options* options, size_t size) {
  if (options != nullptr) {
    const orvane::StreamOptions defaults;
    orvane_stream_options whole = {};
    whole.timeout = defaults.timeout;
    whole.transport = static_cast<int>(defaults.transport);
    whole.ring_bytes = defaults.ringBytes;
    std::memset(options, 0, size);
    options->size = size;
    orvane::c::copyKnown(whole, options);
  }
  return options;
}

int orvane_stream_open(const orvane_stream_options* options, orvane_stream** stream) {
  if (stream == nullptr) {
    return ORVANE_INVALID_ARGUMENT;
  }
  *stream = new (std::nothrow) orvane_stream;
  if (*stream == nullptr) {
    return ORVANE_NO_MEMORY;
  }
  return statusOf((*stream)->failure, [&] {
    (*stream)->stream.emplace(optionsOf(options));
    return ORVANE_OK;
  });
}

int orvane_stream_write(orvane_stream* stream, const void* data, size_t size, size_t* taken) {
  return writeTo(stream, taken, [&](Stream& opened) {
    opened.write(data, size);
    return size;
  });
}

int orvane_stream_write_many(orvane_stream* stream, const orvane_buffer* buffers, size_t count,
                             size_t* taken) {
  return writeTo(stream, taken, [&](Stream& opened) {
    opened.writeMany(checked(buffers, count), count);
    return sizeOf(buffers, count);
  });
}

int orvane_stream_try_write(orvane_stream* stream, const void* data, size_t size, size_t* taken) {
  return writeTo(stream, taken, [&](Stream& opened) { return opened.tryWrite(data, size); });
}

int orvane_stream_try_write_many(orvane_stream* stream, const orvane_buffer* buffers, size_t count,
                                 size_t* taken) {
  return writeTo(stream, taken, [&](Stream& opened) {
    return opened.tryWriteMany(checked(buffers, count), count);
  });
}

int orvane_stream_end_segment(orvane_stream* stream) {
  return on(stream, [](Stream& opened) {
    opened.endSegment();
    return ORVANE_OK;
  });
}

int orvane_stream_try_end_segment(orvane_stream* stream) {
  return on(stream, [&](Stream& opened) {
    return unlessDone(stream, opened.tryEndSegment(), kNoRoom, Certainty::notStored);
  });
}

int orvane_stream_flush(orvane_stream* stream) {
  return on(stream, [](Stream& opened) {
    opened.flush();
    return ORVANE_OK;
  });
}

int orvane_stream_try_flush(orvane_stream* stream) {
  return on(stream, [&](Stream& opened) {
    return unlessDone(stream, opened.tryFlush(), kNoRoom, Certainty::notStored);
  });
}

int orvane_stream_finish(orvane_stream* stream, orvane_receipt* receipt) {
  return on(stream, [&](Stream& opened) {
    orvane::c::requireSize(receipt);
    orvane::c::copyReceipt(opened.finish(), receipt);
    return ORVANE_OK;
  });
}

int orvane_stream_try_finish(orvane_stream* stream, orvane_receipt* receipt) {
  return on(stream, [&](Stream& opened) {
    orvane::c::requireSize(receipt);
    const auto found = opened.tryFinish();
    if (found) {
      orvane::c::copyReceipt(*found, receipt);
    }
    return unlessDone(stream, found.has_value(), kNoReceipt, Certainty::unknown);
  });
}

int orvane_stream_wait(orvane_stream* stream, unsigned int milliseconds) {
  return on(stream, [&](Stream& opened) {
    return unlessDone(stream, opened.wait(std::chrono::milliseconds(milliseconds)), kNotYet,
                      Certainty::unknown);
  });
}

int orvane_stream_fd(orvane_stream* stream) {
  int fd = -1;
  on(stream, [&](Stream& opened) {
    fd = opened.fd();
    return ORVANE_OK;
  });
  return fd;
}

int orvane_stream_transport(const orvane_stream* stream) {
  return stream != nullptr && stream->stream ? static_cast<int>(stream->stream->transport()) : -1;
}

int orvane_stream_status(const orvane_stream* stream) {
  return stream != nullptr ? stream->failure.status() : ORVANE_NO_MEMORY;
}

const char* orvane_stream_message(const orvane_stream* stream) {
  return stream != nullptr ? stream->failure.message() : orvane::c::kNoMemory;
}

int orvane_stream_certainty(const orvane_stream* stream) {
  return static_cast<int>(stream != nullptr ? stream->failure.certainty() : Certainty::notStored);
}

void orvane_stream_close(orvane_stream* stream) {
  delete stream;
}

}  // extern "C"
