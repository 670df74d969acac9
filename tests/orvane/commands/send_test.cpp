#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>

#include "support/server.hpp"
#include "support/text.hpp"

namespace orvane::test {
namespace {

// Bytes in which a record that is lost, doubled or moved would show.
std::string numberedLines(std::size_t size) {
  std::string text;
  while (text.size() < size) {
    text += std::to_string(text.size()) + "\n";
  }
  text.resize(size);
  return text;
}

std::string fileOf(const TempFolder& folder, const std::string& content) {
  std::string path = folder.path() + "/input";
  writeFile(path, content);
  return path;
}

TEST(Send, FileIsStoredAsOneStream) {
  Server server;
  TempFolder folder;
  const std::string path = fileOf(folder, "14 crates of oranges");

  const Ended ended = run(server.sendCommand({path}));

  EXPECT_EQ(ended.how, "exit 0");
  EXPECT_EQ(ended.err, "");
  EXPECT_TRUE(matches(ended.out,
                      "stored 1 file, 20 bytes, 1 segment, [0-9]+\\.[0-9][0-9] s, "
                      "[0-9.]+ k?M?B/s, stream [0-9A-Za-z_-]+\n"));
  ASSERT_EQ(server.streams().size(), 1u);
  EXPECT_EQ(server.content(0), "14 crates of oranges");
  EXPECT_EQ(server.fact(0, "end"), "closed");
}

TEST(Send, SummaryNamesTheStreamThatWasStored) {
  Server server;
  const Ended ended = run(server.sendCommand({"-"}), "x");

  const std::string stream = server.fact(0, "stream");
  EXPECT_TRUE(ended.out.ends_with(", stream " + stream + "\n")) << ended.out;
}

TEST(Send, WithJsonPrintsALineForEachStream) {
  Server server;
  TempFolder folder;
  const std::string path = fileOf(folder, "14 crates of oranges");

  const Ended ended = run(server.sendCommand({"--json", path, "-"}), "more");

  EXPECT_EQ(ended.how, "exit 0");
  const auto line = [&](const std::string& file, std::size_t number, const std::string& bytes) {
    return R"(\{"file":")" + file + R"(","queue":")" + server.queue() + R"(","stream":")" +
           server.id(number) + R"(","label":null,"records":1,"bytes":)" + bytes +
           R"(,"segments":1,"seconds":[0-9.]+,"end":"closed"\}\n)";
  };
  EXPECT_TRUE(matches(ended.out, line(path, 0, "20") + line("-", 1, "4")));
}

TEST(Send, EmptyFileIsAnEmptyStream) {
  Server server;
  TempFolder folder;
  const std::string path = fileOf(folder, "");

  const Ended ended = run(server.sendCommand({path}));

  EXPECT_EQ(ended.how, "exit 0") << ended.err;
  EXPECT_TRUE(startsWith(ended.out, "stored 1 file, 0 bytes, 0 segments, "));
  ASSERT_EQ(server.streams().size(), 1u);
  EXPECT_EQ(server.content(0), "");
  EXPECT_EQ(server.fact(0, "end"), "closed");
  EXPECT_EQ(server.fact(0, "records"), "0");
}

TEST(Send, LargeFileIsCutIntoSegments) {
  Server server;
  TempFolder folder;
  const std::string content = numberedLines((5 << 20) + 1);
  const std::string path = fileOf(folder, content);

  const Ended ended = run(server.sendCommand({"--segment-size", "2MiB", path}));

  EXPECT_EQ(ended.how, "exit 0") << ended.err;
  EXPECT_TRUE(startsWith(ended.out, "stored 1 file, 5242881 bytes, 3 segments, "));
  EXPECT_EQ(server.segmentFiles(0).size(), 3u);
  EXPECT_EQ(readFile(server.streams()[0] + "/" + server.segmentFiles(0)[0]).size(), 2u << 20);
  EXPECT_TRUE(server.content(0) == content);
  EXPECT_EQ(server.fact(0, "skipped"), "0");
}

TEST(Send, FileOfWholeSegmentsHasNoEmptyLastOne) {
  Server server;

  const Ended ended = run(server.sendCommand({"--segment-size", "1KiB", "-"}), numberedLines(4096));

  EXPECT_EQ(ended.how, "exit 0") << ended.err;
  EXPECT_TRUE(startsWith(ended.out, "stored 1 file, 4096 bytes, 4 segments, "));
  EXPECT_EQ(server.segmentFiles(0).size(), 4u);
}

TEST(Send, SparseFileIsStoredWithItsHoles) {
  Server server;
  TempFolder folder;
  const std::string path = fileOf(folder, "begin");
  ASSERT_EQ(truncate(path.c_str(), 5 << 20), 0);
  std::ofstream(path, std::ios::app | std::ios::binary) << "end";

  const Ended ended = run(server.sendCommand({path}));

  EXPECT_EQ(ended.how, "exit 0") << ended.err;
  EXPECT_TRUE(server.content(0) == readFile(path));
}

TEST(Send, StandardInputIsStored) {
  Server server;
  const std::string content = numberedLines(3000000);

  const Ended ended = run(server.sendCommand({"-"}), content);

  EXPECT_EQ(ended.how, "exit 0") << ended.err;
  EXPECT_TRUE(server.content(0) == content);
}

TEST(Send, EachFileBecomesAStream) {
  Server server;
  TempFolder folder;
  writeFile(folder.path() + "/a", "first");
  writeFile(folder.path() + "/b", "");
  writeFile(folder.path() + "/c", "third");

  const Ended ended = run(
      server.sendCommand({folder.path() + "/a", folder.path() + "/b", "-", folder.path() + "/c"}),
      "from a pipe");

  EXPECT_EQ(ended.how, "exit 0") << ended.err;
  EXPECT_TRUE(startsWith(ended.out, "stored 4 files, 21 bytes, 3 segments, "));
  EXPECT_TRUE(ended.out.ends_with(", streams " + server.fact(0, "stream") + " to " +
                                  server.fact(3, "stream") + "\n"))
      << ended.out;
  ASSERT_EQ(server.streams().size(), 4u);
  EXPECT_EQ(server.content(0), "first");
  EXPECT_EQ(server.content(1), "");
  EXPECT_EQ(server.content(2), "from a pipe");
  EXPECT_EQ(server.content(3), "third");
}

TEST(Send, RecordsFitIntoTheQueuesMessages) {
  Server server({"--message-size", "100", "--messages", "1"});
  const std::string content = numberedLines(5000);

  const Ended ended = run(server.sendCommand({"-"}), content);

  EXPECT_EQ(ended.how, "exit 0") << ended.err;
  EXPECT_EQ(server.content(0), content);
  EXPECT_EQ(server.fact(0, "records"), "114");  // of 100 - 8 - 48 bytes each
}

}  // namespace
}  // namespace orvane::test
