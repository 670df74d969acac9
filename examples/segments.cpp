// segments SOCKET FILE...: one stream, a segment for each file.

#include <fstream>
#include <iostream>
#include <orvane/orvane.hpp>
#include <stdexcept>
#include <vector>

using orvane::ShmWriter;

namespace {

constexpr unsigned kSeconds = 2;         // of one wait for room in the queue, up to 1 s less
constexpr int kWaits = 15;               // then the server is taken for dead
constexpr unsigned kServerSeconds = 30;  // for a lease, and for the receipt

// Sends what is in the batch. After a time-out the batch is as it was, so this may be repeated.
// Any other failure is the server's word on an earlier batch: the stream is lost.
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

// Makes a call that only adds to the batch. Where it timed out, the batch was full and could not be
// sent, so the record is not in it: it has to be sent first.
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

// In an empty batch there is room for the close record. So where close() times out, the record
// waits in the batch, and is sent from there; a second close() would add a second one.
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

// So that nobody takes half a stream for a whole one. It failed already: what fails now is no news.
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
  // The last answers are not awaited by the writer. This is: without it, nothing is known to be
  // stored.
  std::cout << textOf(lease.receipt(kServerSeconds)) << "\n";
} catch (const std::exception& e) {
  std::cerr << "producer: " << e.what() << "\n";
  return 1;
}
