#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "chunk.hpp"
#include "shm/fd.hpp"
#include "store_format/manifest_reader.hpp"
#include "store_format/stream_head.hpp"

namespace forward {

// Offers one stored stream chunk by chunk: every file that its manifest lists, and the manifest
// last, so that the cluster has the whole stream when it has the manifest. It keeps nothing: after
// any failure the stream is offered again from its begin.
class StreamSender {
 public:
  // Stores a chunk, or finds it stored. Returns false if the chunk is too large now; the rest is
  // then offered in smaller ones.
  using Offer = std::function<bool(const Chunk&)>;

  // Returns the size that chunks may have now. It is asked once for a stream, and after each chunk
  // that was too large.
  using ChunkSize = std::function<std::size_t()>;

  StreamSender(std::string store, std::string host, ChunkSize chunkSize, Offer offer);

  enum class Result {
    forwarded,
    gone,       // the stream was removed
    unreadable  // its manifest is damaged, so that nobody knows its files
  };
  struct Report {
    Result result = Result::forwarded;
    std::string reason = {};                // why it is unreadable
    std::vector<std::string> damaged = {};  // files that differ from the manifest, with the reason
  };

  // Throws std::runtime_error if a file cannot be read, and what `offer` throws.
  Report send(const std::string& id);

 private:
  std::optional<std::string> examine(const std::string& id);
  void sendListed(const std::string& line, Report& report);
  std::string sendFile(const std::string& file, const tool::Content& listed);
  void sendManifest();
  std::uint32_t sendContent(const tool::Fd& opened, const std::string& file, std::uint64_t size,
                            bool isManifest);
  std::string pathOf(const std::string& file) const;

  const std::string store;
  const std::string host;
  const ChunkSize chunkSize;
  const Offer offer;

  // Of the stream that is being sent.
  StreamName name;
  std::size_t chunkBytes = 0;
  std::vector<unsigned char> buffer;
};

// Is this the name of a file that a server stores data in? Another one in a manifest, or in a
// subject, might lead out of the stream's folder.
bool isDataFile(const std::string& name);

// Returns the queue of a stream, as `orvane streams` shows it.
std::string queueOf(const tool::StreamHead& head, const std::string& id);

}  // namespace forward
