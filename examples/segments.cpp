// segments SOCKET FILE...: sends one stream with a segment for each file.

#include <fstream>
#include <iostream>
#include <orvane/orvane.hpp>
#include <stdexcept>
#include <vector>

using orvane::ShmWriter;

namespace {

constexpr unsigned kSeconds = 2;         // limit of one wait for room in the queue
constexpr int kWaits = 15;               // after this many waits the server is considered dead
constexpr unsigned kServerSeconds = 30;  // limit of the waits for a lease and for the receipt

// Sends the batch. After a timeout the batch is unchanged, so the call is repeated. Any other
// failure means that the stream is lost: for example, the server refused an earlier batch.
void flush(ShmWriter& writer) {
  for (int wait = 1;; ++wait) {
    try {
      return writer.flush_shm_buffer(kSeconds);
    } catch (const Ox_ErrnoException& e) {
      if (e.status() != orvane::kStatusTimedOut || wait == kWaits) {
        throw;
      }
      std::cerr << "producer: the server is slow: " << e.what() << "\n";
    }
  }
}

// Makes a call that adds a record to the batch. If the call timed out, the batch was full and could
// not be sent, so the record is not in it: send the batch, and then make the call again.
template <typename Call>
void add(ShmWriter& writer, Call call) {
  try {
    return call();
  } catch (const Ox_ErrnoException& e) {
    if (e.status() != orvane::kStatusTimedOut) {
      throw;
    }
  }
  flush(writer);
  call();
}

void sendSegment(ShmWriter& writer, const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::vector<char> data(ShmWriter::getMaxSegmentSize());
  while (file.read(data.data(), static_cast<std::streamsize>(data.size())) || file.gcount() > 0) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(data.data());
    add(writer, [&] { writer.writeSegment(bytes, static_cast<unsigned long>(file.gcount())); });
  }
  if (!file.eof()) {
    throw std::runtime_error("cannot read " + path);
  }
  add(writer, [&] { writer.endSegment(); });
}

// An empty batch has room for the close record. So if close() times out, the record is in the batch
// and a flush sends it; another close() would add a second one.
void close(ShmWriter& writer) {
  flush(writer);
  try {
    writer.close();
  } catch (const Ox_ErrnoException& e) {
    if (e.status() != orvane::kStatusTimedOut) {
      throw;
    }
    flush(writer);
  }
}

// Stops the stream, so that half a stream is not taken for a whole one. Another failure is ignored,
// because the first one is reported.
void stop(ShmWriter& writer) noexcept {
  try {
    writer.stop(true);
  } catch (...) {
  }
}

}  // namespace

int main(int argc, char** argv) try {
  if (argc < 2) {
    std::cerr << "usage: segments SOCKET FILE...\n";
    return 2;
  }
  orvane::Lease lease(argv[1], kServerSeconds);
  ShmWriter writer("files", lease.queueName(), kSeconds, kSeconds, false);
  writer.open();
  try {
    for (int i = 2; i < argc; ++i) {
      sendSegment(writer, argv[i]);
    }
    close(writer);
  } catch (...) {
    stop(writer);
    throw;
  }
  // The writer does not wait for the last responses. The receipt shows that the stream is stored.
  std::cout << textOf(lease.receipt(kServerSeconds)) << "\n";
} catch (const std::exception& e) {
  std::cerr << "producer: " << e.what() << "\n";
  return 1;
}
