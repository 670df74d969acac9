#include "store/manifest_file.hpp"

namespace orvaned {

void count(orvane::Receipt& receipt, const SegmentSummary& segment) {
  receipt.records += segment.records;
  receipt.bytes += segment.bytes;
  receipt.segments += segment.bytes > 0 ? 1 : 0;
}

void Manifest::begin(const std::string& queue, const std::string& stream) {
  for (const std::string& first : tool::firstLines(queue, stream)) {
    line(first);
  }
}

void Manifest::addDamaged(const std::string& name, const std::string& reason) {
  line(tool::damagedLine(name, reason));
}

void Manifest::finish(const StreamSummary& stream) {
  line(textOf(stream.others));
  line(tool::skippedLine(stream.skipped));
  finish(stream.receipt, stream.reason);
}

void Manifest::finish(const orvane::Receipt& receipt, const std::string& reason) {
  for (const std::string& last : tool::lastLines(receipt, reason)) {
    line(last);
  }
  finish();
}

void Manifest::line(const std::string& text) {
  const std::string withEnd = text + "\n";
  file.append({reinterpret_cast<const unsigned char*>(withEnd.data()), withEnd.size()});
}

}  // namespace orvaned
