#include "manifest.hpp"

namespace orvaned {

Manifest::Manifest(const std::string& folder, const std::string& queue, const std::string& stream)
    : path(folder + "/manifest"), file(path + ".part") {
  line("format=1");
  line("queue=" + queue);
  line("stream=" + stream);
}

void Manifest::add(const SegmentSummary& segment) {
  const auto& parameters = segment.parameters;
  line("segment number=" + std::to_string(segment.number) +
       " records=" + std::to_string(segment.records) + " bytes=" + std::to_string(segment.bytes) +
       " algorithm=" + std::to_string(segment.algorithm) +
       " parameters=" + std::to_string(parameters[0]) + "," + std::to_string(parameters[1]) + "," +
       std::to_string(parameters[2]) + " file=" + (segment.file.empty() ? "-" : segment.file));
}

void Manifest::finish(const StreamSummary& stream) {
  line("other-records=" + std::to_string(stream.otherRecords) +
       " bytes=" + std::to_string(stream.otherBytes));
  line("records=" + std::to_string(stream.receipt.records));
  line("bytes=" + std::to_string(stream.receipt.bytes));
  line("skipped=" + std::to_string(stream.skipped));
  line("end=" + stream.receipt.end);
  line("reason=" + stream.reason);
  file.finish(path);
}

void Manifest::line(const std::string& text) {
  const std::string withEnd = text + "\n";
  file.append({reinterpret_cast<const unsigned char*>(withEnd.data()), withEnd.size()});
}

}  // namespace orvaned
