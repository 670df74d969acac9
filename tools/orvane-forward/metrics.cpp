#include "metrics.hpp"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <system_error>

namespace forward {
namespace {

void add(std::string& text, const std::string& name, const char* type, const char* help,
         const std::string& value) {
  const std::string full = "orvane_forward_" + name;
  text += "# HELP " + full + " " + help + "\n# TYPE " + full + " " + type + "\n" + full + " " +
          value + "\n";
}

}  // namespace

std::string textOf(const Metrics& metrics) {
  std::string text;
  const auto counter = [&](const char* name, const char* help, std::uint64_t value) {
    add(text, name, "counter", help, std::to_string(value));
  };
  const auto gauge = [&](const char* name, const char* help, std::int64_t value) {
    add(text, name, "gauge", help, std::to_string(value));
  };
  counter("streams_total", "Streams that were forwarded.", metrics.streams);
  counter("chunks_total", "Chunks that the cluster has stored.", metrics.chunks);
  counter("bytes_total", "Bytes of these chunks.", metrics.bytes);
  counter("known_chunks_total", "Chunks that the cluster had already.", metrics.known);
  counter("repeated_chunks_total", "Chunks that were sent again.", metrics.repeats);
  counter("full_pauses_total", "Pauses because the cluster was full.", metrics.fullPauses);
  counter("damaged_files_total", "Files that differ from their manifest.", metrics.damaged);
  counter("differing_chunks_total", "Chunks of which the cluster has another content.",
          metrics.differing);
  counter("failures_total", "Attempts that ended before the stream was forwarded.",
          metrics.failures);
  gauge("waiting_streams", "Streams that have ended and are not forwarded.",
        static_cast<std::int64_t>(metrics.waiting.load()));
  gauge("unreadable_streams", "Streams whose manifest is damaged.",
        static_cast<std::int64_t>(metrics.unreadable.load()));
  gauge("connected", "1 while a server of the cluster is connected.", metrics.connected ? 1 : 0);
  gauge("last_stored_timestamp_seconds", "When the cluster has stored the last chunk.",
        metrics.lastStored);
  return text;
}

std::string writeMetrics(const Metrics& metrics, const std::string& path) {
  const std::string written = path + ".new";
  std::ofstream file(written, std::ios::trunc);
  file << textOf(metrics);
  file.close();
  // Other users read it, such as a collector; the file has no secret.
  if (!file || chmod(written.c_str(), 0644) != 0 ||
      std::rename(written.c_str(), path.c_str()) != 0) {
    return std::generic_category().message(errno) + ": cannot write " + path;
  }
  return "";
}

}  // namespace forward
