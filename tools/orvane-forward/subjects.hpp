#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace forward {

// Each chunk of a stream has a subject of its own, which says what it is:
//   orvane.1.HOST.QUEUE.STREAM.FILE.OFFSET-LENGTH
// The last chunk of the manifest, which is sent when all others are stored, has another form:
//   orvane.1.HOST.QUEUE.STREAM.manifest
// 1 is the version of this scheme. The stream of the cluster keeps one message for a subject, so
// whatever is sent again is refused, and the chunk is known to be there.
constexpr char kAllSubjects[] = "orvane.1.>";
constexpr char kAllManifests[] = "orvane.1.*.*.*.manifest";

// The stream of the cluster that keeps all of them.
constexpr char kClusterStream[] = "orvane";

// A stream of the store, as the cluster knows it. `stream` is its id, the name of its folder.
struct StreamName {
  std::string host;
  std::string queue;
  std::string stream;

  bool operator==(const StreamName&) const = default;
};

// A text as one token of a subject: each byte outside [A-Za-z0-9_-] is % and two hexadecimal
// digits, and an empty text is % alone. textIn() returns nothing for what no text becomes.
std::string tokenOf(std::string_view text);
std::optional<std::string> textIn(std::string_view token);

// Returns "orvane.1.HOST.QUEUE.STREAM", with which all subjects of the stream begin.
std::string subjectOf(const StreamName& name);

std::string chunkSubject(const StreamName& name, const std::string& file, std::uint64_t offset,
                         std::uint64_t length);
std::string manifestSubject(const StreamName& name);

// What a subject says of its message.
struct ChunkName {
  StreamName stream;
  std::string file;
  std::uint64_t offset = 0;  // 0 for the last chunk of a manifest, whose header has it
  std::uint64_t length = 0;  // the same
  bool endsManifest = false;

  bool operator==(const ChunkName&) const = default;
};

// Returns nothing for a subject of another form.
std::optional<ChunkName> parseSubject(std::string_view subject);

// Returns the stream in a text "HOST/QUEUE/STREAM", or nothing.
std::optional<StreamName> parseStreamName(const std::string& text);
std::string textOf(const StreamName& name);

}  // namespace forward
