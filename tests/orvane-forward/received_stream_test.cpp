#include "fetch/received_stream.hpp"

#include <gtest/gtest.h>

#include <filesystem>
#include <stdexcept>

#include "support/temp_folder.hpp"

namespace orvane::test::received_stream {
namespace {

using forward::ChunkName;
using forward::ReceivedStream;
using Names = std::vector<std::string>;

class ReceivedStreamTest : public testing::Test {
 protected:
  static ReceivedStream::Part part(const std::string& file, std::uint64_t offset,
                                   const std::string& data, bool isLast) {
    return {
        file, offset, isLast, {reinterpret_cast<const unsigned char*>(data.data()), data.size()}};
  }

  static std::string faultOf(const ChunkName& name, const std::string& offset,
                             const std::string& checksum, const std::string& data) {
    std::string fault;
    const auto found = ReceivedStream::partOf(
        name, offset, checksum, false,
        {reinterpret_cast<const unsigned char*>(data.data()), data.size()}, fault);
    EXPECT_EQ(found.has_value(), fault.empty());
    return fault;
  }

  std::string path(const std::string& file = "") const {
    return temporary.path() + "/stream" + (file.empty() ? "" : "/" + file);
  }

  const TempFolder temporary;
  const std::string a = "aaa";
  const std::string b = "bb";
  const std::string none;
};

TEST_F(ReceivedStreamTest, MakesTheFolderAndNamesAFileWhenItIsComplete) {
  ReceivedStream stream(path());
  EXPECT_FALSE(stream.take(part("segment-000000", 0, a, false)));
  EXPECT_EQ(namesIn(path()), Names{".segment-000000.new"});
  EXPECT_TRUE(stream.take(part("segment-000000", 3, b, true)));
  EXPECT_EQ(namesIn(path()), Names{"segment-000000"});
  EXPECT_EQ(readFile(path("segment-000000")), "aaabb");
  EXPECT_EQ(stream.bytes(), 5U);
  EXPECT_EQ(stream.files(), 1U);
}

TEST_F(ReceivedStreamTest, TakesPartsInAnyOrderAndAgain) {
  ReceivedStream stream(path());
  EXPECT_FALSE(stream.take(part("segment-000000", 3, b, true)));
  EXPECT_FALSE(stream.take(part("segment-000000", 3, b, true)));
  EXPECT_TRUE(stream.take(part("segment-000000", 0, a, false)));
  EXPECT_EQ(readFile(path("segment-000000")), "aaabb");
}

TEST_F(ReceivedStreamTest, TakesPartsThatOverlap) {
  ReceivedStream stream(path());
  EXPECT_FALSE(stream.take(part("segment-000000", 0, a, false)));
  EXPECT_FALSE(stream.take(part("segment-000000", 5, a, true)));
  EXPECT_TRUE(stream.take(part("segment-000000", 2, "abba", false)));
  EXPECT_EQ(readFile(path("segment-000000")), "aaabbaaa");
}

TEST_F(ReceivedStreamTest, TakesAnEmptyFile) {
  ReceivedStream stream(path());
  EXPECT_TRUE(stream.take(part("segment-000001.part", 0, none, true)));
  EXPECT_EQ(readFile(path("segment-000001.part")), "");
}

TEST_F(ReceivedStreamTest, NamesTheManifestLast) {
  ReceivedStream stream(path());
  EXPECT_FALSE(stream.take(part("manifest", 0, a, true)));
  EXPECT_EQ(namesIn(path()), Names{".manifest.new"});
  EXPECT_EQ(stream.conclude(), Names{});
  EXPECT_EQ(namesIn(path()), Names{"manifest"});
}

TEST_F(ReceivedStreamTest, NamesTheFilesOfWhichPartsAreMissing) {
  ReceivedStream stream(path());
  stream.take(part("segment-000000", 0, a, false));
  stream.take(part("segment-000001", 1, a, true));
  EXPECT_EQ(stream.conclude(), (Names{"segment-000000", "segment-000001"}));
}

TEST_F(ReceivedStreamTest, ReplacesWhatAnEarlierAttemptHasLeft) {
  std::filesystem::create_directory(path());
  writeFile(path(".segment-000000.new"), "longer than before");
  writeFile(path("segment-000001"), "before");
  ReceivedStream stream(path());
  stream.take(part("segment-000000", 0, a, true));
  EXPECT_EQ(readFile(path("segment-000000")), "aaa");
}

TEST_F(ReceivedStreamTest, RefusesAFolderWithAnythingElse) {
  for (const char* const name : {"manifest", "notes.txt", ".profile"}) {
    std::filesystem::create_directories(path());
    writeFile(path(name), "");
    try {
      const ReceivedStream stream(path());
      FAIL() << name;
    } catch (const std::runtime_error& e) {
      EXPECT_EQ(e.what(),
                "the folder " + path() + " is in use: it has " + name + "; name another one");
    }
    std::filesystem::remove_all(path());
  }
}

TEST_F(ReceivedStreamTest, FollowsNoLink) {
  std::filesystem::create_directory(path());
  std::filesystem::create_symlink(temporary.path() + "/outside", path(".segment-000000.new"));
  ReceivedStream stream(path());
  EXPECT_THROW(stream.take(part("segment-000000", 0, a, true)), std::runtime_error);
  EXPECT_FALSE(std::filesystem::exists(temporary.path() + "/outside"));
}

TEST_F(ReceivedStreamTest, ComparesAMessageWithItsSubjectAndHeaders) {
  const forward::StreamName name = {"h", "q", "s"};
  const ChunkName chunk = {name, "segment-000000", 5, 3, false};
  EXPECT_EQ(faultOf(chunk, "5", "f007732d", "aaa"), "");
  EXPECT_EQ(faultOf(chunk, "4", "f007732d", "aaa"), "its offset is '4'");
  EXPECT_EQ(faultOf(chunk, "", "f007732d", "aaa"), "its offset is ''");
  EXPECT_EQ(faultOf(chunk, "5", "f007732d", "aa"), "it has 2 bytes");
  EXPECT_EQ(faultOf(chunk, "5", "f007732d", "aab"), "its checksum is not 'f007732d'");
  EXPECT_EQ(faultOf(chunk, "5", "", "aaa"), "its checksum is not ''");
  const ChunkName end = {name, "manifest", 0, 0, true};
  EXPECT_EQ(faultOf(end, "7", "f007732d", "aaa"), "");
  EXPECT_EQ(faultOf(end, "x", "f007732d", "aaa"), "its offset is 'x'");
}

// Whoever may write into the cluster must not write other files here.
TEST_F(ReceivedStreamTest, RefusesNamesOfOtherFiles) {
  for (const char* const file : {"../secret", "notes.txt", "", ".bashrc", "segment-x"}) {
    EXPECT_EQ(faultOf({{"h", "q", "s"}, file, 0, 3, false}, "0", "f007732d", "aaa"),
              "it belongs to no file of a stream")
        << file;
  }
}

}  // namespace
}  // namespace orvane::test::received_stream
