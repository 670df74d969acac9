// orvane cat and orvane streams of streams whose segments are compressed.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "orvane/store/store_fixture.hpp"
#include "store_format/zstd.hpp"
#include "support/text.hpp"
#include "support/wire.hpp"

namespace orvane::test {
namespace {

// Frames with "hello " and "world" in one block each, as they are.
constexpr char kHelloFrame[] = "28b52ffd 00 58 300000 68656c6c6f20 010000";
constexpr char kWorldFrame[] = "28b52ffd 00 58 280000 776f726c64 010000";
constexpr char kWorldWithoutEnd[] = "28b52ffd 00 58 280000 776f726c64";

class CompressedStreams : public StoreTest {
 protected:
  void writeFrame(const std::string& file, const std::string& digits) const {
    const Bytes bytes = hex(digits);
    write(stored, file, {bytes.begin(), bytes.end()});
  }

  static std::string lineOf(std::size_t number, const std::string& content, std::size_t size,
                            const std::string& file) {
    std::string line = segmentLine(number, content, file);
    return line.insert(line.find(" file="), " stored=" + std::to_string(size));
  }

  void writeManifest(const std::string& lines) const {
    write(stored, "manifest", withChecksum("format=2\n" + stored.head + lines + endingOf(stored)));
  }

  // Two segments, "hello " and "world".
  void addCompressed() const {
    std::filesystem::create_directory(pathOf(stored));
    writeFrame("segment-000000.zst", kHelloFrame);
    writeFrame("segment-000001.zst", kWorldFrame);
    writeManifest(helloLine + lineOf(1, "world", 17, "segment-000001.zst"));
  }

  // The same, but the second one has not ended, and the test writes its file.
  void addOpenCompressed() const {
    std::filesystem::create_directory(pathOf(stored));
    writeFrame("segment-000000.zst", kHelloFrame);
    write(stored, "manifest.part", "format=2\n" + stored.head + helloLine);
  }

  Ended cat(std::vector<std::string> options = {}) const {
    options.insert(options.begin(), "cat");
    options.push_back(stored.id);
    return orvane(options, store.path());
  }

  void expectListed(const std::string& rest) const {
    const Ended ended = orvane({"streams", "--json", store.path()});
    EXPECT_EQ(ended.how, "exit 0") << ended.err;
    EXPECT_TRUE(contains(ended.out, R"("records":null,)" + rest + R"(,"end":"open"})"));
  }

  StoredText stored = ofQueue("20261121T023224-4711_0", "2026-11-21T02:32:24.123Z");
  const std::string where = "the stream in " + pathOf(stored);
  const std::string helloLine = lineOf(0, "hello ", 18, "segment-000000.zst");
};

TEST_F(CompressedStreams, ArePrintedAsTheyWereSent) {
  addCompressed();
  const Ended ended = cat();
  EXPECT_EQ(ended.how, "exit 0");
  EXPECT_EQ(ended.out, "hello world");
  EXPECT_EQ(ended.err, "");
  EXPECT_EQ(cat({"--segment", "1"}).out, "world");
}

TEST_F(CompressedStreams, ArePrintedHoweverLargeTheyAre) {
  std::string text;
  for (int i = 0; i < 500000; ++i) {
    text += std::to_string(i);
  }
  tool::Compressor compressor(tool::Compressor::kDefault);
  Bytes frame;
  compressor.begin();
  compressor.add({reinterpret_cast<const unsigned char*>(text.data()), text.size()}, frame);
  compressor.end(frame);
  stored.segments = {text};
  std::filesystem::create_directory(pathOf(stored));
  write(stored, "segment-000000.zst", {frame.begin(), frame.end()});
  writeManifest(lineOf(0, text, frame.size(), "segment-000000.zst"));
  EXPECT_TRUE(cat().out == text);
}

TEST_F(CompressedStreams, AreNotPrintedWhereTheyAreDamaged) {
  addCompressed();
  writeFrame("segment-000001.zst", "28b52ffd 00 58 280000 776f726c44 010000");
  const std::string reason = "segment-000001.zst of " + where +
                             " is damaged: its checksum is 0119318b instead of 3a771143";
  const Ended ended = cat();
  EXPECT_EQ(ended.how, "exit 1");
  EXPECT_EQ(ended.out, "hello ");
  EXPECT_EQ(ended.err, "orvane cat: " + reason + "; --force prints it as it is\n");
  const Ended forced = cat({"--force"});
  EXPECT_EQ(forced.how, "exit 0");
  EXPECT_EQ(forced.out, "hello worlD");
  EXPECT_EQ(forced.err, "orvane cat: " + reason + "\n");
}

TEST_F(CompressedStreams, ArePrintedByForceAsFarAsTheyCanBeDecompressed) {
  addCompressed();
  writeFrame("segment-000000.zst", "28b52ffd 00 58 280000 68656c6c6f 0e0000");
  const Ended ended = cat({"--force"});
  EXPECT_EQ(ended.how, "exit 0");
  EXPECT_EQ(ended.out, "helloworld");
  EXPECT_EQ(ended.err, "orvane cat: segment-000000.zst of " + where +
                           " is damaged: its compressed data is invalid: cannot read " +
                           pathOf(stored) + "/segment-000000.zst\n");
}

TEST_F(CompressedStreams, HaveOtherBytesThanTheirFilesAlsoWhileTheyAreOpen) {
  addOpenCompressed();
  writeFrame("segment-000001.zst.part", kWorldWithoutEnd);
  expectListed(R"("bytes":11,"segments":2)");
  const Ended ended = cat({"--force"});
  EXPECT_EQ(ended.how, "exit 0");
  EXPECT_EQ(ended.out, "hello world");
  EXPECT_EQ(ended.err, "orvane cat: " + where + " is not whole: it has not ended\n");
}

// The plain file is removed when the compressed one has as much.
TEST_F(CompressedStreams, AreReadFromThePlainFileAsLongAsItIsThere) {
  addOpenCompressed();
  write(stored, "segment-000001.part", "world");
  writeFrame("segment-000001.zst.part", "28b52ffd 00 58 280000 776f72");
  expectListed(R"("bytes":11,"segments":2)");
  EXPECT_EQ(cat({"--force"}).out, "hello world");
}

TEST_F(CompressedStreams, HaveAnUnknownSizeIfCountingItTakesLongOrFails) {
  addOpenCompressed();
  const std::string file = pathOf(stored) + "/segment-000001.zst.part";
  writeFrame("segment-000001.zst.part", kWorldWithoutEnd);
  std::filesystem::resize_file(file, (4 << 20) + 1);
  expectListed(R"("bytes":null,"segments":2)");
  EXPECT_TRUE(matches(orvane({"streams", store.path()}).out,
                      "BEGUN [^\n]*\n2026-11-21T02:32:24Z +-?[0-9.]+ s +- +- +2  open [^\n]*\n"));
  writeFile(file, "rubbish");
  expectListed(R"("bytes":null,"segments":2)");
}

}  // namespace
}  // namespace orvane::test
