#include "store/manifest_file.hpp"

namespace orvaned {

void count(orvane::Receipt& receipt, const SegmentSummary& segment) {
  receipt.records += segment.records;
  receipt.bytes += segment.bytes;
  receipt.segments += segment.bytes > 0 ? 1 : 0;
}

void Manifest::begin(const std::string& queue, const std::string& stream) {
  line("format=1");
  line("queue=" + queue);
  line("stream=" + stream);
}

void Manifest::addDamaged(const std::string& name, const std::string& reason) {
  line("damaged file=" + name + " reason=" + reason);
}

void Manifest::finish(const StreamSummary& stream) {
  line(textOf(stream.others));
  line("skipped=" + std::to_string(stream.skipped));
  finish(stream.receipt, stream.reason);
}

void Manifest::finish(const orvane::Receipt& receipt, const std::string& reason) {
  line(textOf(receipt));
  line("records=" + std::to_string(receipt.records));
  line("bytes=" + std::to_string(receipt.bytes));
  line("end=" + textOf(receipt.end));
  line("reason=" + reason);
  finish();
}

void Manifest::line(const std::string& text) {
  const std::string withEnd = text + "\n";
  file.append({reinterpret_cast<const unsigned char*>(withEnd.data()), withEnd.size()});
}

}  // namespace orvaned
