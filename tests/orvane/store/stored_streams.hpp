#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "support/manifest.hpp"
#include "support/process.hpp"
#include "support/temp_folder.hpp"

namespace orvane::test {

// A store with streams that the test writes itself.
class StoredStreams : public testing::Test {
 protected:
  using Names = std::vector<std::string>;

  static inline const std::string kFirst = "orders-20261121T023224-4711_0";
  static inline const std::string kSecond = "orders-app.log-20261121T023230-4711_1";

  // The lines of two segments, and of the files that hold "hello" and "world!".
  static inline const std::string kHello =
      "segment number=0 records=1 bytes=5 algorithm=0 parameters=0,0,0 crc32=3610a686 "
      "file=segment-000000\n";
  static inline const std::string kWorld =
      "segment number=1 records=1 bytes=6 algorithm=0 parameters=0,0,0 crc32=718498e8 "
      "file=segment-000001\n";
  static inline const std::string kNoOthers = "other-records=0 bytes=0 crc32=00000000\nskipped=0\n";

  std::string path(const std::string& id, const std::string& file = "") const {
    return store.path() + "/" + id + (file.empty() ? "" : "/" + file);
  }
  // A file has its name when it is complete, as those of a server.
  void write(const std::string& id, const std::string& file, const std::string& content) const {
    std::filesystem::create_directory(path(id));
    writeFile(path(id, file + ".part"), content);
    std::filesystem::rename(path(id, file + ".part"), path(id, file));
  }

  static std::string streamOf(const std::string& id) {
    return id.substr(id.rfind('-', id.rfind('-') - 1) + 1);
  }

  static std::string headOf(const std::string& id, int format = 2) {
    return "format=" + std::to_string(format) + "\nqueue=orders\nstream=" + streamOf(id) + "\n";
  }

  // The lines from the receipt on. `totals` is such as "records=2 bytes=11 segments=2".
  static std::string endingOf(const std::string& id, const std::string& totals,
                              const std::string& end = "closed",
                              const std::string& ended = "2026-11-21T02:32:31.004Z",
                              const std::string& reason = "") {
    std::string lines = totals.substr(0, totals.find(" segments="));
    lines.replace(lines.find(' '), 1, "\n");
    return "receipt stream=" + streamOf(id) + " " + totals + " end=" + end + "\n" + lines +
           "\nend=" + end + "\n" + (ended.empty() ? "" : "ended=" + ended + "\n") +
           "reason=" + reason + "\n";
  }

  // Two segments, "hello" and "world!", and the manifest.
  void writeStream(const std::string& id, const std::string& end = "closed",
                   const std::string& ended = "2026-11-21T02:32:31.004Z") const {
    write(id, "segment-000000", "hello");
    write(id, "segment-000001", "world!");
    write(id, "manifest",
          withChecksum(headOf(id) + kHello + kWorld + kNoOthers +
                       endingOf(id, "records=2 bytes=11 segments=2", end, ended)));
  }

  static Ended runOrvane(std::vector<std::string> arguments, const ProcessSetup& around = {}) {
    arguments.insert(arguments.begin(), ORVANE_PATH);
    return run(arguments, "", around);
  }

  const TempFolder store;
};

}  // namespace orvane::test
