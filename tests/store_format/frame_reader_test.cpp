#include "store_format/frame_reader.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <stdexcept>

#include "store_format/stored_file.hpp"
#include "support/temp_folder.hpp"
#include "support/wire.hpp"

namespace orvane::test {
namespace {

using tool::FrameReader;

// A window of 2 MiB, and nothing else.
constexpr char kHeader[] = "28b52ffd 00 58";
constexpr char kHello[] = "280000 68656c6c6f";  // as it is
constexpr char kThousand[] = "421f00 78";       // 1000 times 'x'
constexpr char kEnd[] = "010000";

class FrameReaderTest : public testing::Test {
 protected:
  static std::string frame(const std::string& digits) {
    const Bytes bytes = hex(digits);
    return {bytes.begin(), bytes.end()};
  }

  FrameReader readerOf(const std::string& content) const {
    writeFile(path, content);
    return {tool::openStored(path), path};
  }

  static std::string dataOf(FrameReader& reader) {
    std::string data;
    for (auto bytes = reader.next(); !bytes.empty(); bytes = reader.next()) {
      data.append(bytes.begin(), bytes.end());
    }
    return data;
  }

  // What reading the content fails with.
  std::string faultOf(const std::string& content) const {
    FrameReader reader = readerOf(content);
    try {
      dataOf(reader);
      return "";
    } catch (const std::runtime_error& e) {
      return e.what();
    }
  }

  const TempFolder folder;
  const std::string path = folder.path() + "/segment-000000.zst";
  const std::string invalid = "its compressed data is invalid: cannot read " + path;
};

TEST_F(FrameReaderTest, ReturnsTheDataOfBlockAfterBlock) {
  FrameReader reader = readerOf(frame(std::string(kHeader) + kHello + kThousand + kEnd));
  const auto hello = reader.next();
  EXPECT_EQ(std::string(hello.begin(), hello.end()), "hello");
  const auto thousand = reader.next();
  EXPECT_EQ(std::string(thousand.begin(), thousand.end()), std::string(1000, 'x'));
  EXPECT_FALSE(reader.isComplete());
  EXPECT_TRUE(reader.next().empty());
  EXPECT_TRUE(reader.isComplete());
  EXPECT_TRUE(reader.next().empty());
  EXPECT_EQ(reader.wholeBytes(), 21U);
  EXPECT_EQ(reader.fileBytes(), 21U);
}

TEST_F(FrameReaderTest, ReturnsTheDataOfTheLastBlock) {
  FrameReader reader = readerOf(frame(std::string(kHeader) + kThousand + "290000 68656c6c6f"));
  EXPECT_EQ(dataOf(reader), std::string(1000, 'x') + "hello");
  EXPECT_TRUE(reader.isComplete());
}

TEST_F(FrameReaderTest, ReadsAFrameWithoutData) {
  FrameReader reader = readerOf(frame(std::string(kHeader) + kEnd));
  EXPECT_TRUE(reader.next().empty());
  EXPECT_TRUE(reader.isComplete());
}

TEST_F(FrameReaderTest, ReadsWhatAnotherProgramHasCompressed) {
  constexpr char kOther[] = "28b52ffd 24 05 290000 68656c6c6f a36d9f88";  // with a checksum
  FrameReader reader = readerOf(frame(kOther));
  EXPECT_EQ(dataOf(reader), "hello");
  EXPECT_TRUE(reader.isComplete());
  EXPECT_EQ(reader.wholeBytes(), 18U);
  EXPECT_EQ(faultOf(frame("28b52ffd 24 05 290000 68656c6c6f a36d9f89")), invalid);
}

TEST_F(FrameReaderTest, ReadsHeadersOfEveryForm) {
  for (const char* header :
       {"28b52ffd 60 0000", "28b52ffd a0 00010000", "28b52ffd e0 0001000000000000",
        "28b52ffd 40 58 0000", "28b52ffd 80 58 00010000", "28b52ffd c0 58 0001000000000000",
        "28b52ffd 01 58 00", "28b52ffd 02 58 0000", "28b52ffd 03 58 00000000"}) {
    FrameReader reader = readerOf(frame(std::string(header) + "030800 78"));
    EXPECT_EQ(dataOf(reader), std::string(256, 'x')) << header;
    EXPECT_TRUE(reader.isComplete()) << header;
  }
}

TEST_F(FrameReaderTest, ReturnsTheWholeBlocksOfAFileThatIsCutAnywhere) {
  const std::string whole = frame(std::string(kHeader) + kHello + kThousand + kEnd);
  for (std::size_t size = 0; size < whole.size(); ++size) {
    FrameReader reader = readerOf(whole.substr(0, size));
    const std::string expected = size < 14   ? ""
                                 : size < 18 ? "hello"
                                             : "hello" + std::string(1000, 'x');
    const std::size_t wholeBytes = size < 6 ? 0 : size < 14 ? 6 : size < 18 ? 14 : 18;
    EXPECT_EQ(dataOf(reader), expected) << size;
    EXPECT_FALSE(reader.isComplete()) << size;
    EXPECT_EQ(reader.wholeBytes(), wholeBytes) << size;
    EXPECT_EQ(reader.fileBytes(), size);
  }
}

TEST_F(FrameReaderTest, ReturnsNothingOfALastBlockWithoutItsChecksum) {
  FrameReader reader = readerOf(frame("28b52ffd 24 05 290000 68656c6c6f a36d9f"));
  EXPECT_EQ(dataOf(reader), "");
  EXPECT_FALSE(reader.isComplete());
  EXPECT_EQ(reader.wholeBytes(), 6U);
  EXPECT_EQ(reader.fileBytes(), 17U);
}

TEST_F(FrameReaderTest, RefusesWhatIsNoFrame) {
  EXPECT_EQ(faultOf(frame("28b5")), "");
  for (const char* content : {"29", "28b5ff", "28b52ffc", "29b52ffd 00 58 010000",
                              "28b52ffd 08 58 010000", "68656c6c6f"}) {
    EXPECT_EQ(faultOf(frame(content)), invalid) << content;
  }
}

TEST_F(FrameReaderTest, RefusesInvalidBlocks) {
  for (const char* block : {"060000",             // of the reserved type
                            "080010",             // of more than 128 KiB
                            "2c0000 0102030405",  // not compressed in this way
                            "0a0010 78"}) {       // 131073 times one byte
    EXPECT_EQ(faultOf(frame(std::string(kHeader) + kHello + block + kEnd)), invalid) << block;
  }
}

TEST_F(FrameReaderTest, RefusesWhatFollowsTheFrame) {
  const std::string whole = frame(std::string(kHeader) + kHello + kEnd);
  EXPECT_EQ(faultOf(whole), "");
  EXPECT_EQ(faultOf(whole + '\0'), invalid);
  EXPECT_EQ(faultOf(whole + whole), invalid);
}

TEST_F(FrameReaderTest, ReadsBlocksOfEverySize) {
  std::string content = frame(kHeader);
  std::string expected;
  for (const std::size_t size : {131072U, 131071U, 1U, 100000U, 131072U, 3U, 131072U}) {
    const std::size_t header = size << 3;
    for (int shift = 0; shift < 24; shift += 8) {
      content += static_cast<char>(header >> shift);
    }
    const std::string data(size, static_cast<char>('a' + expected.size() % 26));
    content += data;
    expected += data;
  }
  FrameReader reader = readerOf(content + frame(kEnd));
  EXPECT_TRUE(dataOf(reader) == expected);
  EXPECT_TRUE(reader.isComplete());
}

TEST_F(FrameReaderTest, SaysWhyAFileCannotBeRead) {
  writeFile(path, "");
  FrameReader reader(tool::Fd(open(path.c_str(), O_WRONLY | O_CLOEXEC)), path);
  try {
    reader.next();
    ADD_FAILURE();
  } catch (const std::runtime_error& e) {
    EXPECT_EQ(std::string(e.what()), "Bad file descriptor: cannot read " + path);
  }
}

}  // namespace
}  // namespace orvane::test
