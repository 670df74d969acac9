#include "store_format/segment_content.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <stdexcept>
#include <vector>

#include "store_format/stored_file.hpp"
#include "support/temp_folder.hpp"
#include "support/wire.hpp"

namespace orvane::test {
namespace {

using tool::Content;
using tool::SegmentContent;

// "hello" in one block, and the end of the frame.
constexpr char kCut[] = "28b52ffd 00 58 280000 68656c6c6f";
constexpr char kWhole[] = "28b52ffd 00 58 280000 68656c6c6f 010000";

class SegmentContentTest : public testing::Test {
 protected:
  static std::string frame(const char* digits) {
    const Bytes bytes = hex(digits);
    return {bytes.begin(), bytes.end()};
  }

  std::string write(const std::string& name, const std::string& content) const {
    std::string path = folder.path() + "/" + name;
    writeFile(path, content);
    return path;
  }

  static void append(const std::string& path, const std::string& content) {
    std::ofstream(path, std::ios::app) << content;
  }

  static std::string dataOf(const std::string& path) {
    SegmentContent content(tool::openStored(path), path);
    std::string data;
    for (auto bytes = content.next(); !bytes.empty(); bytes = content.next()) {
      data.append(bytes.begin(), bytes.end());
    }
    return data;
  }

  static std::string next(SegmentContent& content, std::uint64_t most = SegmentContent::kAny) {
    const auto bytes = content.next(most);
    return {bytes.begin(), bytes.end()};
  }

  const TempFolder folder;
};

TEST_F(SegmentContentTest, OfAPlainFileIsAsItIs) {
  EXPECT_EQ(dataOf(write("segment-000000", "hello")), "hello");
  EXPECT_EQ(dataOf(write("segment-000000.part", frame(kWhole))), frame(kWhole));
  EXPECT_EQ(dataOf(write("segment-000000", "")), "");
  const std::string large(3000000, 'x');
  EXPECT_TRUE(dataOf(write("segment-000000", large)) == large);
}

TEST_F(SegmentContentTest, OfACompressedFileIsDecompressed) {
  EXPECT_EQ(dataOf(write("segment-000000.zst", frame(kWhole))), "hello");
  EXPECT_EQ(dataOf(write("segment-000000.zst.part", frame(kWhole))), "hello");
}

TEST_F(SegmentContentTest, EndsBeforeItsFrameOnlyInAnUnfinishedFile) {
  EXPECT_EQ(dataOf(write("segment-000000.zst.part", frame(kCut))), "hello");
  const std::string path = write("segment-000000.zst", frame(kCut));
  try {
    dataOf(path);
    ADD_FAILURE();
  } catch (const std::runtime_error& e) {
    EXPECT_EQ(std::string(e.what()), "its compressed data has no end: cannot read all of " + path);
  }
}

TEST_F(SegmentContentTest, ComesInPartsThatAreNotLargerThanAsked) {
  for (const auto& path :
       {write("segment-000000", "hello"), write("segment-000000.zst", frame(kWhole))}) {
    SegmentContent content(tool::openStored(path), path);
    EXPECT_EQ(next(content, 2), "he") << path;
    EXPECT_EQ(next(content, 0), "") << path;
    EXPECT_EQ(next(content, 3), "llo") << path;
    EXPECT_EQ(next(content, 1), "") << path;
  }
}

TEST_F(SegmentContentTest, IsReadFromAnyPlaceOn) {
  const std::string blocks = "28b52ffd 00 58 280000 68656c6c6f 300000 776f726c6421 010000";
  for (const auto& path : {write("segment-000000", "helloworld!"),
                           write("segment-000000.zst", frame(blocks.c_str()))}) {
    for (std::size_t from = 0; from <= 12; ++from) {
      SegmentContent content(tool::openStored(path), path);
      content.skip(from);
      std::string data;
      for (std::string part = next(content); !part.empty(); part = next(content)) {
        data += part;
      }
      EXPECT_EQ(data, std::string("helloworld!").substr(std::min<std::size_t>(from, 11)))
          << path << " from " << from;
    }
  }
}

TEST_F(SegmentContentTest, GoesOnWhenTheFileGrows) {
  const std::string plain = write("segment-000000.part", "hel");
  SegmentContent ofPlain(tool::openStored(plain), plain);
  EXPECT_EQ(next(ofPlain), "hel");
  EXPECT_EQ(next(ofPlain), "");
  append(plain, "lo");
  EXPECT_EQ(next(ofPlain), "lo");

  const std::string whole = frame(kWhole);
  const std::string path = write("segment-000000.zst.part", "");
  SegmentContent content(tool::openStored(path), path);
  for (std::size_t size = 0; size < 14; ++size) {
    EXPECT_EQ(next(content), "") << size;
    append(path, whole.substr(size, 1));
  }
  EXPECT_EQ(next(content), "hello");
  EXPECT_EQ(next(content), "");
  append(path, whole.substr(14));
  EXPECT_EQ(next(content), "");
  EXPECT_EQ(content.storedBytes(), 17U);
}

TEST_F(SegmentContentTest, TellsHowMuchOfTheFileWasRead) {
  std::vector<unsigned char> block(2);
  std::vector<std::size_t> reads;
  const auto note = [&](std::size_t bytes) { reads.push_back(bytes); };
  const std::string plain = write("segment-000000", "hello");
  tool::contentOf(tool::openStored(plain), plain, block, note);
  EXPECT_EQ(reads, (std::vector<std::size_t>{2, 2, 1}));

  reads.clear();
  const std::string path = write("segment-000000.zst", frame(kWhole));
  EXPECT_EQ(tool::contentOf(tool::openStored(path), path, block, note),
            (Content{5, 0x3610a686, 17}));
  EXPECT_EQ(reads, std::vector<std::size_t>{17});
}

TEST_F(SegmentContentTest, IsCountedBeforeAndAfterCompression) {
  const Content plain = tool::contentOf(write("segment-000000", "hello"));
  EXPECT_EQ(plain.bytes, 5U);
  EXPECT_EQ(plain.checksum, 0x3610a686U);
  EXPECT_EQ(plain.stored, 0U);
  const Content compressed = tool::contentOf(write("segment-000000.zst", frame(kWhole)));
  EXPECT_EQ(compressed.bytes, 5U);
  EXPECT_EQ(compressed.checksum, 0x3610a686U);
  EXPECT_EQ(compressed.stored, 17U);
  EXPECT_EQ(tool::contentOf(write("segment-000000.zst.part", frame(kCut) + "\x01")).stored, 15U);
}

TEST_F(SegmentContentTest, DiffersFromWhatIsListedInOneOfThreeNumbers) {
  const std::string path = write("segment-000000.zst", frame(kWhole));
  EXPECT_EQ(tool::faultOf(path, {5, 0x3610a686, 17}), "");
  EXPECT_EQ(tool::faultOf(path, {6, 0x3610a686, 17}), "it has 5 bytes instead of 6");
  EXPECT_EQ(tool::faultOf(path, {5, 0x3610a687, 17}),
            "its checksum is 3610a686 instead of 3610a687");
  EXPECT_EQ(tool::faultOf(path, {5, 0x3610a686, 18}), "its file has 17 bytes instead of 18");
}

}  // namespace
}  // namespace orvane::test
