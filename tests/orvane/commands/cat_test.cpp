#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>

#include "orvane/store/store_fixture.hpp"
#include "support/lease_fixture.hpp"
#include "support/text.hpp"

namespace orvane::test {
namespace {

const StoredText kStored = ofQueue("20261121T023224-4711_0", "2026-11-21T02:32:24.123Z");

class Cat : public StoreTest {
 protected:
  Ended cat(std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(), "cat");
    return orvane(arguments, store.path());
  }

  // The stream that the tests damage.
  Ended catStored(std::vector<std::string> options = {}) const {
    options.push_back(kStored.id);
    return cat(options);
  }

  void expectRefused(const std::string& printed, const std::string& reason) const {
    const Ended ended = catStored();
    EXPECT_EQ(ended.how, "exit 1");
    EXPECT_EQ(ended.out, printed);
    EXPECT_EQ(ended.err, "orvane cat: " + reason + "\n");
  }

  void expectForced(const std::string& printed, const std::string& warnings) const {
    const Ended ended = catStored({"--force"});
    EXPECT_EQ(ended.how, "exit 0");
    EXPECT_EQ(ended.out, printed);
    EXPECT_EQ(ended.err, warnings);
  }

  const std::string where = "the stream in " + pathOf(kStored);
};

TEST_F(Cat, PrintsTheSegmentsInOrder) {
  add(kStored);
  const Ended ended = catStored();
  EXPECT_EQ(ended.how, "exit 0");
  EXPECT_EQ(ended.out, "hello world");
  EXPECT_EQ(ended.err, "");
}

TEST_F(Cat, PrintsStreamAfterStream) {
  add(kStored);
  StoredText other = ofLease("app.log", "20261121T023225-4720_3", "2026-11-21T02:32:25.004Z");
  other.segments = {"again"};
  add(other);
  EXPECT_EQ(cat({"app.log", kStored.id, "app.log"}).out, "againhello worldagain");
}

TEST_F(Cat, PrintsNothingIfOneOfTheNamesIsWrong) {
  add(kStored);
  const Ended ended = cat({kStored.id, "none"});
  EXPECT_EQ(ended.how, "exit 1");
  EXPECT_EQ(ended.out, "");
}

TEST_F(Cat, PrintsNothingOfAStreamWithoutData) {
  StoredText empty = kStored;
  empty.segments = {};
  add(empty);
  EXPECT_EQ(catStored().how, "exit 0");
  EXPECT_EQ(catStored().out, "");
}

TEST_F(Cat, PrintsTheNewestStream) {
  add(kStored);
  StoredText older = ofLease("a", "20261121T023220-4720_3", "2026-11-21T02:32:20.004Z");
  older.segments = {"older"};
  add(older);
  StoredText oldest = ofLease("a", "20261120T023220-4720_3", "2026-11-20T02:32:20.004Z");
  add(oldest);
  EXPECT_EQ(cat({"--last"}).out, "hello world");
  EXPECT_EQ(cat({"--last", "backups-a"}).out, "older");
  EXPECT_EQ(cat({"--last", "--store", store.path()}).out, "hello world");
  EXPECT_EQ(cat({"--last", "none"}).err, "orvane cat: no stream in the store " + store.path() +
                                             " has 'none' in its id: orvane streams " +
                                             store.path() + " lists all streams\n");
  const TempFolder empty;
  EXPECT_EQ(orvane({"cat", "--last"}, empty.path()).err, "orvane cat: no stream is in the store " +
                                                             empty.path() + ": orvane streams " +
                                                             empty.path() + " lists all streams\n");
}

TEST_F(Cat, PrintsOneSegment) {
  add(kStored);
  EXPECT_EQ(catStored({"--segment", "0"}).out, "hello ");
  EXPECT_EQ(catStored({"--segment", "1"}).out, "world");
  const Ended ended = catStored({"--segment", "2"});
  EXPECT_EQ(ended.how, "exit 1");
  EXPECT_EQ(ended.err, "orvane cat: " + where + " has no segment 2\n");
}

TEST_F(Cat, PrintsASegmentWithoutDataAsNothing) {
  const std::string lines = addSegments(kStored) +
                            "segment number=2 records=0 bytes=0 algorithm=0 parameters=0,0,0 "
                            "crc32=00000000 file=-\n";
  write(kStored, "manifest", withChecksum("format=2\n" + kStored.head + lines + endingOf(kStored)));
  EXPECT_EQ(catStored().out, "hello world");
  EXPECT_EQ(catStored({"--segment", "2"}).how, "exit 0");
  EXPECT_EQ(catStored({"--segment", "2"}).out, "");
}

TEST_F(Cat, PrintsASegmentThatIsLargerThanItsBuffer) {
  StoredText large = kStored;
  std::string content;
  for (int i = 0; i < 200000; ++i) {
    content += std::to_string(i);
  }
  large.segments = {content, "", content};
  large.segments[1] = "x";
  add(large);
  EXPECT_TRUE(catStored().out == content + "x" + content);
}

TEST_F(Cat, PrintsNothingOfADamagedSegmentNorAfterIt) {
  add(kStored);
  write(kStored, "segment-000001", "worlD");
  expectRefused("hello ", "segment-000001 of " + where +
                              " is damaged: its checksum is 0119318b instead of 3a771143; --force "
                              "prints it as it is");
  EXPECT_EQ(catStored({"--segment", "1"}).out, "");
  EXPECT_EQ(catStored({"--segment", "0"}).how, "exit 0");
  expectForced("hello worlD", "orvane cat: segment-000001 of " + where +
                                  " is damaged: its checksum is 0119318b instead of 3a771143\n");
}

TEST_F(Cat, PrintsNothingOfASegmentWithTooManyOrTooFewBytes) {
  add(kStored);
  write(kStored, "segment-000000", "hello  ");
  expectRefused("", "segment-000000 of " + where +
                        " is damaged: it has 7 bytes instead of 6; --force prints it as it is");
  expectForced("hello  world", "orvane cat: segment-000000 of " + where +
                                   " is damaged: it has 7 bytes instead of 6\n");
  write(kStored, "segment-000000", "hell");
  expectRefused("", "segment-000000 of " + where +
                        " is damaged: it has 4 bytes instead of 6; --force prints it as it is");
}

TEST_F(Cat, TellsOfASegmentThatIsMissing) {
  add(kStored);
  std::filesystem::remove(pathOf(kStored) + "/segment-000000");
  const std::string reason = "segment-000000 of " + where +
                             " is damaged: No such file or directory: cannot read " +
                             pathOf(kStored) + "/segment-000000";
  expectRefused("", reason + "; --force prints it as it is");
  expectForced("world", "orvane cat: " + reason + "\n");
}

TEST_F(Cat, FollowsNoSymbolicLink) {
  add(kStored);
  const std::string file = pathOf(kStored) + "/segment-000001";
  writeFile(store.path() + "/elsewhere", "world");
  std::filesystem::remove(file);
  std::filesystem::create_symlink(store.path() + "/elsewhere", file);
  expectRefused("hello ", "segment-000001 of " + where +
                              " is damaged: Too many levels of symbolic links: cannot read " +
                              file + "; --force prints it as it is");
}

TEST_F(Cat, PrintsNothingOfAStreamThatWasNotClosed) {
  for (const char* const end : {"stopped", "cut-off", "broken"}) {
    StoredText stream = kStored;
    stream.end = end;
    add(stream);
    expectRefused(
        "", where + " is not whole: it ended as " + end + "; --force prints what is stored of it");
    expectForced("hello world",
                 "orvane cat: " + where + " is not whole: it ended as " + end + "\n");
    EXPECT_EQ(catStored({"--segment", "1"}).out, "world");
  }
}

// As a stream that is cut off leaves it, and a server that died.
TEST_F(Cat, PrintsSegmentsThatWereNotEndedOnlyByForce) {
  StoredText stream = kStored;
  stream.segments = {"hello "};
  stream.end = "cut-off";
  const std::string lines = addSegments(stream) + segmentLine(1, "wor", "segment-000001.part") +
                            "unfinished file=segment-000002.part bytes=2 crc32=c24e9315\n"
                            "unfinished file=other-records bytes=1 crc32=00000000\n";
  write(stream, "segment-000001.part", "wor");
  write(stream, "segment-000002.part", "ld");
  write(stream, "manifest", withChecksum("format=2\n" + stream.head + lines + endingOf(stream)));

  for (const char* const number : {"1", "2"}) {
    const Ended ended = catStored({"--segment", number});
    EXPECT_EQ(ended.how, "exit 1");
    EXPECT_EQ(ended.out, "");
    EXPECT_EQ(ended.err, std::string("orvane cat: segment-00000") + number + ".part of " + where +
                             " is not whole: its segment was not ended; --force prints what is "
                             "stored of it\n");
  }
  EXPECT_EQ(catStored({"--segment", "1", "--force"}).out, "wor");
  EXPECT_EQ(catStored({"--segment", "2", "--force"}).out, "ld");
  expectForced("hello world", "orvane cat: " + where + " is not whole: it ended as cut-off\n");
}

TEST_F(Cat, PrintsNothingByADamagedManifest) {
  add(kStored);
  std::string manifest = readFile(pathOf(kStored) + "/manifest");
  const std::size_t line = manifest.find("segment number=1");
  manifest.erase(line, manifest.find('\n', line) + 1 - line);
  write(kStored, "manifest", manifest);

  const Ended ended = catStored();
  EXPECT_EQ(ended.how, "exit 1");
  EXPECT_EQ(ended.out, "");
  EXPECT_TRUE(matches(ended.err, "orvane cat: the manifest of " + where +
                                     " is damaged: the checksum of its lines is [0-9a-f]{8} "
                                     "instead of [0-9a-f]{8}; --force prints the segments that it "
                                     "lists\n"));
  EXPECT_EQ(catStored({"--segment", "0"}).how, "exit 1");
  EXPECT_EQ(catStored({"--force"}).out, "hello ");
}

// Without a checksum of its own, the receipt shows that a line is missing.
TEST_F(Cat, PrintsNothingByAManifestOfFormat1WithAMissingLine) {
  const std::string begin = "format=1\nqueue=orders\nstream=20261121T023224-4711_0\n";
  const std::string ending =
      "other-records=1 bytes=3 crc32=00000000\nskipped=0\n"
      "receipt stream=20261121T023224-4711_0 records=3 bytes=14 segments=2 end=closed\n"
      "records=3\nbytes=14\nend=closed\nreason=\n";
  const std::string lines = addSegments(kStored);
  write(kStored, "manifest", begin + lines + ending);
  EXPECT_EQ(catStored().out, "hello world");

  const std::string refusal = "the manifest of " + where +
                              " is damaged: its receipt does not match its other lines; --force "
                              "prints the segments that it lists";
  write(kStored, "manifest", begin + lines.substr(0, lines.find('\n') + 1) + ending);
  expectRefused("", refusal);
  write(kStored, "manifest", begin + lines + ending.substr(ending.find('\n') + 1));
  expectRefused("", refusal);
  write(kStored, "manifest", begin + lines);
  expectRefused("", "the manifest of " + where +
                        " is damaged: it has no receipt; --force prints the segments that it "
                        "lists");
}

TEST_F(Cat, RefusesAFormatThatIsNotKnownEvenByForce) {
  add(kStored);
  write(kStored, "manifest", "format=3\n");
  const Ended ended = catStored({"--force"});
  EXPECT_EQ(ended.how, "exit 1");
  EXPECT_EQ(ended.out, "");
  EXPECT_EQ(ended.err, "orvane cat: format 3 is not known: " + pathOf(kStored) +
                           "/manifest was written by another release: use that one to read it\n");
}

TEST_F(Cat, PrintsAnOpenStreamOnlyByForce) {
  addOpen(kStored);
  expectRefused("", where +
                        " has not ended; --follow prints it while it is stored, and --force "
                        "prints what is stored so far");
  const std::string warning = "orvane cat: " + where + " is not whole: it has not ended\n";
  expectForced("hello world", warning);
  // A segment's line comes shortly before its final name.
  std::filesystem::rename(pathOf(kStored) + "/segment-000000",
                          pathOf(kStored) + "/segment-000000.part");
  expectForced("hello world", warning);
  EXPECT_EQ(catStored({"--segment", "0", "--force"}).out, "hello ");
  EXPECT_EQ(catStored({"--segment", "1", "--force"}).out, "world");
  EXPECT_EQ(catStored({"--segment", "2", "--force"}).how, "exit 1");
}

TEST_F(Cat, ReportsOutputThatCannotBeWritten) {
  add(kStored);
  const Ended ended =
      run({"bash", "-c", R"("$0" cat "$1" > /dev/full)", ORVANE_PATH, pathOf(kStored)});
  EXPECT_EQ(ended.how, "exit 1");
  EXPECT_EQ(ended.err, "orvane cat: cannot write all of it: No space left on device\n");
}

TEST_F(Cat, EndsQuietlyWhenNobodyReadsOn) {
  StoredText large = kStored;
  large.segments = {std::string(1 << 20, 'x')};
  add(large);
  const Ended ended = run({"bash", "-c", R"("$0" cat "$1" | head -c 1; echo "${PIPESTATUS[0]}")",
                           ORVANE_PATH, pathOf(kStored)});
  EXPECT_EQ(ended.out, "x141\n");
  EXPECT_EQ(ended.err, "");
}

class CatOfALease : public LeaseTest {};

TEST_F(CatOfALease, GivesBackTheFileThatWasSent) {
  start();
  const std::string file = folder.path() + "/app.log";
  std::string content;
  for (int i = 0; i < 100000; ++i) {
    content += std::to_string(i) + "\n";
  }
  writeFile(file, content);
  ASSERT_EQ(run({ORVANE_PATH, "send", "--socket", socket, "--segment-size", "100kB", file}).how,
            "exit 0");

  const Ended ended = run({ORVANE_PATH, "cat", "--store", store.path(), "app.log"});

  EXPECT_EQ(ended.how, "exit 0") << ended.err;
  EXPECT_TRUE(ended.out == content);
}

}  // namespace
}  // namespace orvane::test
