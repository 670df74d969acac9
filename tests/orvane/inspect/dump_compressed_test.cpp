// orvane dump of a stored stream whose segments are compressed.

#include <gtest/gtest.h>

#include "support/manifest.hpp"
#include "support/server.hpp"
#include "support/temp_folder.hpp"
#include "support/text.hpp"
#include "support/wire.hpp"

namespace orvane::test {
namespace {

class DumpOfACompressedStream : public testing::Test {
 protected:
  // A frame with "hello" in one block, as it is.
  static constexpr char kBlock[] = "28b52ffd 00 58 280000 68656c6c6f";
  static constexpr char kFrameEnd[] = "010000";

  static std::string bytes(const std::string& digits) {
    const Bytes all = hex(digits);
    return {all.begin(), all.end()};
  }

  DumpOfACompressedStream() {
    write("manifest", withChecksum(head + segment + unfinished));
    write("segment-000000.zst", bytes(std::string(kBlock) + kFrameEnd));
    write("segment-000001.zst.part", bytes(kBlock));
  }

  void write(const std::string& name, const std::string& content) const {
    writeFile(folder.path() + "/" + name, content);
  }
  Ended dump(const std::vector<std::string>& options = {}) const {
    std::vector<std::string> command = {ORVANE_PATH, "dump", folder.path()};
    command.insert(command.end(), options.begin(), options.end());
    return run(command);
  }

  const TempFolder folder;
  const std::string head =
      "format=2\nqueue=orders\nstream=20261121T023224-4711_0\nbegun=2026-11-21T02:32:24.123Z\n";
  const std::string segment =
      "segment number=0 records=1 bytes=5 algorithm=0 parameters=0,0,0 crc32=3610a686 stored=17 "
      "file=segment-000000.zst\n";
  const std::string unfinished =
      "unfinished file=segment-000001.zst.part bytes=5 crc32=3610a686 stored=14\n";
};

TEST_F(DumpOfACompressedStream, ComparesTheDataBeforeCompression) {
  const Ended ended = dump();
  EXPECT_EQ(ended.how, "exit 0") << ended.err;
  EXPECT_TRUE(ended.out.starts_with(head + segment + "  segment-000000.zst: whole\n" + unfinished +
                                    "  segment-000001.zst.part: whole\n"))
      << ended.out;
}

TEST_F(DumpOfACompressedStream, FindsOtherDataAndAFileOfAnotherSize) {
  write("segment-000000.zst", bytes("28b52ffd 00 58 280000 68656c6c70") + bytes(kFrameEnd));
  write("segment-000001.zst.part", bytes(std::string(kBlock) + kFrameEnd));
  const Ended ended = dump();
  EXPECT_EQ(ended.how, "exit 1");
  EXPECT_TRUE(contains(ended.out,
                       "  segment-000000.zst: damaged: its checksum is bb18ab73 instead of "
                       "3610a686\n"))
      << ended.out;
  EXPECT_TRUE(contains(ended.out,
                       "  segment-000001.zst.part: damaged: its file has 17 bytes instead of 14\n"))
      << ended.out;
}

TEST_F(DumpOfACompressedStream, WithJsonHasBothSizes) {
  const std::string json = dump({"--json"}).out;
  EXPECT_TRUE(contains(json,
                       R"({"segment":0,"records":1,"bytes":5,"algorithm":0,"parameters":[0,0,0],)"
                       R"("crc32":"3610a686","stored":17,"file":"segment-000000.zst",)"
                       R"("fault":null})"))
      << json;
  EXPECT_TRUE(contains(json, R"({"bytes":5,"crc32":"3610a686","stored":14,)"
                             R"("file":"segment-000001.zst.part","fault":null})"))
      << json;
}

}  // namespace
}  // namespace orvane::test
