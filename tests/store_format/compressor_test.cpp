#include <gtest/gtest.h>

#include <random>

#include "store_format/frame_reader.hpp"
#include "store_format/stored_file.hpp"
#include "store_format/zstd.hpp"
#include "support/process.hpp"
#include "support/temp_folder.hpp"
#include "support/wire.hpp"

namespace orvane::test {
namespace {

using tool::Compressor;

Bytes randomBytes(std::size_t size) {
  std::mt19937 random(1);  // NOLINT(cert-msc32-c,cert-msc51-cpp): the same bytes each time
  Bytes bytes(size);
  for (unsigned char& byte : bytes) {
    byte = static_cast<unsigned char>(random());
  }
  return bytes;
}

class CompressorTest : public testing::Test {
 protected:
  std::string dataOf(const Bytes& compressed) const {
    writeFile(path, {compressed.begin(), compressed.end()});
    std::string data;
    tool::FrameReader reader(tool::openStored(path), path);
    for (auto bytes = reader.next(); !bytes.empty(); bytes = reader.next()) {
      data.append(bytes.begin(), bytes.end());
    }
    return data;
  }

  const TempFolder folder;
  const std::string path = folder.path() + "/segment-000000.zst";
};

TEST_F(CompressorTest, WritesWhatZstdcatReads) {
  const Bytes data = randomBytes(300000);
  for (const int level : {Compressor::kFastest, Compressor::kDefault, Compressor::kSmallest}) {
    Compressor compressor(level);
    Bytes output;
    compressor.begin();
    for (int i = 0; i < 3; ++i) {
      compressor.add(data, output);
      compressor.flush(output);
    }
    compressor.end(output);
    writeFile(path, {output.begin(), output.end()});
    const Ended ended = run({"zstdcat", path});
    EXPECT_EQ(ended.how, "exit 0") << ended.err;
    std::string sent;
    for (int i = 0; i < 3; ++i) {
      sent.append(data.begin(), data.end());
    }
    EXPECT_TRUE(ended.out == sent) << level;
  }
}

TEST_F(CompressorTest, MakesEverythingReadableByAFlush) {
  Compressor compressor(Compressor::kDefault);
  Bytes output;
  std::string expected;
  compressor.begin();
  for (int i = 0; i < 100; ++i) {
    const std::string text = "record " + std::to_string(i) + std::string(5000, 'x') + "\n";
    compressor.add(bytesOf(text), output);
    expected += text;
    compressor.flush(output);
    ASSERT_TRUE(dataOf(output) == expected) << i;
  }
  EXPECT_LT(output.size(), 10000U);
}

TEST_F(CompressorTest, EndsAFrameWithTheSameBytesAfterAnyFlush) {
  Compressor compressor(Compressor::kDefault);
  for (const char* text : {"hello", "another"}) {
    Bytes output;
    compressor.begin();
    compressor.add(bytesOf(text), output);
    compressor.flush(output);
    const std::size_t flushed = output.size();
    compressor.flush(output);
    EXPECT_EQ(output.size(), flushed);
    compressor.end(output);
    EXPECT_EQ(Bytes(output.begin() + static_cast<std::ptrdiff_t>(flushed), output.end()),
              hex("010000"));
    EXPECT_EQ(dataOf(output), text);
  }
}

TEST_F(CompressorTest, ForgetsAFrameThatWasNotEnded) {
  Compressor compressor(Compressor::kDefault);
  Bytes output;
  compressor.begin();
  compressor.add(bytesOf("hello"), output);
  compressor.begin();
  output.clear();
  compressor.add(bytesOf("another"), output);
  compressor.end(output);
  EXPECT_EQ(dataOf(output), "another");
}

TEST_F(CompressorTest, ShowsThatItWorksAfterEach128KiB) {
  int calls = 0;
  Compressor compressor(Compressor::kFastest, [&calls] { ++calls; });
  Bytes output;
  compressor.begin();
  compressor.add({}, output);
  EXPECT_EQ(calls, 0);
  compressor.add(Bytes(131072), output);
  EXPECT_EQ(calls, 1);
  compressor.add(Bytes(131073), output);
  EXPECT_EQ(calls, 3);
}

TEST_F(CompressorTest, MakesLessOfAHigherLevel) {
  std::string text;
  for (int i = 0; i < 20000; ++i) {
    text += std::to_string(i * 7919 % 10007) + " ";
  }
  const auto sizeAt = [&text](int level) {
    Compressor compressor(level);
    Bytes output;
    compressor.begin();
    compressor.add(bytesOf(text), output);
    compressor.end(output);
    return output.size();
  };
  EXPECT_LT(sizeAt(Compressor::kSmallest), sizeAt(Compressor::kFastest));
}

}  // namespace
}  // namespace orvane::test
