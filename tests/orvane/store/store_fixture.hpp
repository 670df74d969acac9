#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "support/manifest.hpp"
#include "support/process.hpp"
#include "support/temp_folder.hpp"

namespace orvane::test {

// A stream as a server has left it in its folder.
struct StoredText {
  std::string id;
  std::string head;  // the manifest's first lines, without the format
  std::vector<std::string> segments = {"hello ", "world"};
  std::string end = "closed";
  std::string ended = "2026-11-21T02:32:31.004Z";
};

// A stream of the fixed queue "orders", as "20261121T023224-4711_0".
inline StoredText ofQueue(const std::string& stream, const std::string& begun) {
  return {.id = "orders-" + stream,
          .head = "queue=orders\nstream=" + stream + "\nbegun=" + begun + "\n"};
}

// A stream of a lease at a socket of the name "backups", whose label needs no escaping.
inline StoredText ofLease(const std::string& label, const std::string& stream,
                          const std::string& begun) {
  return {.id = "backups-" + label + "-" + stream,
          .head = "queue=orvane-20261121T023201-4700_0123456789abcdef\nstream=" + stream +
                  "\nproducer=uid=4294967290 gid=100 pid=4712 executable=backup\nlabel=" + label +
                  "\nbegun=" + begun + "\n"};
}

// The line of a segment in a manifest.
inline std::string segmentLine(std::size_t number, const std::string& content,
                               const std::string& file) {
  char checksum[16] = {};
  std::snprintf(checksum, sizeof checksum, "%08x", crc32Of(content));
  return "segment number=" + std::to_string(number) +
         " records=1 bytes=" + std::to_string(content.size()) +
         " algorithm=0 parameters=0,0,0 crc32=" + checksum + " file=" + file + "\n";
}

class StoreTest : public testing::Test {
 protected:
  std::string pathOf(const StoredText& stream) const { return store.path() + "/" + stream.id; }

  void write(const StoredText& stream, const std::string& file, const std::string& content) const {
    writeFile(pathOf(stream) + "/" + file, content);
  }

  // Stores the segments' files; returns their lines.
  std::string addSegments(const StoredText& stream) const {
    std::filesystem::create_directory(pathOf(stream));
    std::string lines;
    for (std::size_t number = 0; number < stream.segments.size(); ++number) {
      const std::string file = "segment-00000" + std::to_string(number);
      write(stream, file, stream.segments[number]);
      lines += segmentLine(number, stream.segments[number], file);
    }
    return lines;
  }

  static std::string endingOf(const StoredText& stream) {
    std::size_t bytes = 0;
    for (const std::string& segment : stream.segments) {
      bytes += segment.size();
    }
    const std::string count = std::to_string(stream.segments.size());
    const std::string name = stream.head.substr(stream.head.find("\nstream=") + 8, 22);
    return "other-records=0 bytes=0 crc32=00000000\nskipped=0\nreceipt stream=" + name +
           " records=" + count + " bytes=" + std::to_string(bytes) + " segments=" + count +
           " end=" + stream.end + "\nrecords=" + count + "\nbytes=" + std::to_string(bytes) +
           "\nend=" + stream.end + "\nended=" + stream.ended + "\nreason=\n";
  }

  // Stores a stream that has ended; returns it.
  StoredText add(const StoredText& stream) const {
    const std::string lines = addSegments(stream);
    write(stream, "manifest", withChecksum("format=2\n" + stream.head + lines + endingOf(stream)));
    return stream;
  }

  // Stores a stream that is open; its last segment has not ended.
  StoredText addOpen(const StoredText& stream) const {
    StoredText ended = stream;
    ended.segments.pop_back();
    write(stream, "manifest.part", "format=2\n" + stream.head + addSegments(ended));
    const std::string number = std::to_string(ended.segments.size());
    write(stream, "segment-00000" + number + ".part", stream.segments.back());
    return stream;
  }

  // Runs a command of orvane with ORVANE_STORE=`environment`.
  static Ended orvane(std::vector<std::string> arguments, const std::string& environment = "") {
    arguments.insert(arguments.begin(), ORVANE_PATH);
    return run(arguments, "", {.environment = {"ORVANE_STORE=" + environment}});
  }

  const TempFolder store;
};

}  // namespace orvane::test
