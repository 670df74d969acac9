// What the next server makes of a stream whose server died, byte by byte.

#include "store/recovery.hpp"

#include <gtest/gtest.h>

#include <filesystem>

#include "support/limits.hpp"
#include "support/recording_sink.hpp"
#include "support/temp_folder.hpp"

namespace {

using orvane::test::FileSizeLimit;
using orvane::test::Line;
using orvane::test::namesIn;
using orvane::test::readFile;
using orvane::test::RecordingSink;
using orvane::test::TempFolder;
using orvane::test::writeFile;
using orvaned::Sync;

using Names = std::vector<std::string>;

// A manifest's lines. The files of the two segments hold "hello" and "one".
constexpr char kFirst[] = "format=1\nqueue=q\nstream=20261121T023224-4711_0\n";
constexpr char kHello[] =
    "segment number=0 records=2 bytes=5 algorithm=1 parameters=7,8,9 crc32=3610a686 "
    "file=segment-000000\n";
constexpr char kOne[] =
    "segment number=1 records=1 bytes=3 algorithm=0 parameters=0,0,0 crc32=7a6c86f1 "
    "file=segment-000001\n";
constexpr char kEmpty[] =
    "segment number=1 records=3 bytes=0 algorithm=0 parameters=0,0,0 crc32=00000000 file=-\n";

constexpr char kNothingWhole[] =
    "receipt stream=20261121T023224-4711_0 records=0 bytes=0 segments=0 end=cut-off\n"
    "records=0\nbytes=0\nend=cut-off\nreason=the server died\n";
constexpr char kNothingButDamage[] =
    "receipt stream=20261121T023224-4711_0 records=0 bytes=0 segments=0 end=broken\n"
    "records=0\nbytes=0\nend=broken\nreason=the server died\n";
constexpr char kHelloWhole[] =
    "receipt stream=20261121T023224-4711_0 records=2 bytes=5 segments=1 end=cut-off\n"
    "records=2\nbytes=5\nend=cut-off\nreason=the server died\n";
constexpr char kHelloButDamage[] =
    "receipt stream=20261121T023224-4711_0 records=2 bytes=5 segments=1 end=broken\n"
    "records=2\nbytes=5\nend=broken\nreason=the server died\n";
constexpr char kClosed[] =
    "other-records=0 bytes=0 crc32=00000000\n"
    "skipped=4\n"
    "receipt stream=20261121T023224-4711_0 records=2 bytes=5 segments=1 end=closed\n"
    "records=2\nbytes=5\nend=closed\nreason=\n";

class RecoveryTest : public testing::Test {
 protected:
  RecoveryTest() { std::filesystem::create_directory(folder); }

  void file(const std::string& name, const std::string& content) {
    writeFile(folder + "/" + name, content);
  }
  void recover() {
    orvaned::LocalUnfinishedStreams streams(store.path(),
                                            [](const std::string& queue) { return queue == "q"; });
    orvaned::recoverStreams(streams, Sync::segment, "the server");
  }

  std::string manifest() const { return readFile(folder + "/manifest"); }
  Names files() const { return namesIn(folder); }

  // The one line that is logged.
  void expectLogged(ox::Kind kind, int code, const std::string& text) {
    EXPECT_EQ(sink.take(),
              (std::vector<Line>{{kind, code, "recovery::recover: queue q: " + text}}));
  }

  RecordingSink sink;
  TempFolder store;
  const std::string folder = store.path() + "/q-20261121T023224-4711_0";
};

TEST_F(RecoveryTest, AWholeSegmentIsKeptAndAnUnfinishedOneIsListed) {
  file("manifest.part", std::string(kFirst) + kHello);
  file("segment-000000", "hello");
  file("segment-000001.part", "on");
  recover();
  EXPECT_EQ(files(), (Names{"manifest", "segment-000000", "segment-000001.part"}));
  EXPECT_EQ(manifest(), std::string(kFirst) + kHello +
                            "unfinished file=segment-000001.part bytes=2 crc32=09b629c8\n" +
                            kHelloWhole);
  EXPECT_EQ(readFile(folder + "/segment-000001.part"), "on");
  expectLogged(ox::Kind::info, 0,
               "finished what a dead server left: receipt stream=20261121T023224-4711_0 records=2 "
               "bytes=5 segments=1 end=cut-off");
}

TEST_F(RecoveryTest, AListedSegmentGetsTheNameThatItMissed) {
  file("manifest.part", std::string(kFirst) + kHello);
  file("segment-000000.part", "hello");
  recover();
  EXPECT_EQ(files(), (Names{"manifest", "segment-000000"}));
  EXPECT_EQ(readFile(folder + "/segment-000000"), "hello");
  EXPECT_EQ(manifest(), std::string(kFirst) + kHello + kHelloWhole);
}

TEST_F(RecoveryTest, AnUnfinishedSegmentThatIsListedKeepsItsName) {
  const std::string line =
      "segment number=0 records=2 bytes=5 algorithm=1 parameters=7,8,9 crc32=3610a686 "
      "file=segment-000000.part\n";
  file("manifest.part", kFirst + line);
  file("segment-000000.part", "hello");
  recover();
  EXPECT_EQ(files(), (Names{"manifest", "segment-000000.part"}));
  EXPECT_EQ(manifest(), kFirst + line + kHelloWhole);
}

TEST_F(RecoveryTest, AFlippedByteIsFound) {
  file("manifest.part", std::string(kFirst) + kHello + kOne);
  file("segment-000000", "hello");
  file("segment-000001", "onf");
  recover();
  EXPECT_EQ(manifest(), std::string(kFirst) + kHello + kOne +
                            "damaged file=segment-000001 reason=its checksum is e365d74b instead "
                            "of 7a6c86f1\n" +
                            kHelloButDamage);
  EXPECT_EQ(readFile(folder + "/segment-000001"), "onf");
  expectLogged(ox::Kind::warning, 1003,
               "finished what a dead server left: receipt stream=20261121T023224-4711_0 records=2 "
               "bytes=5 segments=1 end=broken; damaged files: 1, see its manifest");
}

TEST_F(RecoveryTest, ASegmentOfAnotherSizeIsFound) {
  file("manifest.part", std::string(kFirst) + kHello + kOne);
  file("segment-000000", "hello");
  file("segment-000001", "on");
  recover();
  EXPECT_EQ(manifest(), std::string(kFirst) + kHello + kOne +
                            "damaged file=segment-000001 reason=it has 2 bytes instead of 3\n" +
                            kHelloButDamage);
}

TEST_F(RecoveryTest, AListedSegmentThatIsNotWholeDoesNotGetItsName) {
  file("manifest.part", std::string(kFirst) + kHello);
  file("segment-000000.part", "hell");
  recover();
  EXPECT_EQ(files(), (Names{"manifest", "segment-000000.part"}));
  EXPECT_EQ(manifest(), std::string(kFirst) + kHello +
                            "damaged file=segment-000000 reason=it has 4 bytes instead of 5\n" +
                            kNothingButDamage);
}

TEST_F(RecoveryTest, AMissingSegmentIsFound) {
  file("manifest.part", std::string(kFirst) + kHello);
  recover();
  EXPECT_EQ(manifest(), std::string(kFirst) + kHello +
                            "damaged file=segment-000000 reason=No such file or directory: cannot "
                            "read " +
                            folder + "/segment-000000\n" + kNothingButDamage);
}

TEST_F(RecoveryTest, ATornLineEndsTheManifest) {
  const std::string torn = kOne;
  for (const std::size_t size : {std::size_t{1}, torn.size() / 2, torn.size() - 1}) {
    std::filesystem::remove(folder + "/manifest");
    file("manifest.part", std::string(kFirst) + kHello + torn.substr(0, size));
    file("segment-000000", "hello");
    file("segment-000001.part", "one");
    recover();
    EXPECT_EQ(manifest(), std::string(kFirst) + kHello +
                              "unfinished file=segment-000001.part bytes=3 crc32=7a6c86f1\n" +
                              kHelloWhole)
        << size;
  }
}

TEST_F(RecoveryTest, ALineThatMakesNoSenseEndsTheManifest) {
  file("manifest.part", std::string(kFirst) + kHello + std::string(40, '\0') + "\n" + kOne);
  file("segment-000000", "hello");
  file("segment-000001", "one");
  recover();
  EXPECT_EQ(manifest(), std::string(kFirst) + kHello +
                            "damaged file=segment-000001 reason=it is not listed\n" +
                            kHelloButDamage);
}

TEST_F(RecoveryTest, AManifestWithoutItsFirstLinesIsBegunAgain) {
  for (const std::string& start :
       {std::string(), std::string("format=1\nqueue=q\nstr"),
        std::string("format=2\nqueue=q\nstream=20261121T023224-4711_0\n"), std::string(50, '\0')}) {
    std::filesystem::remove(folder + "/manifest");
    file("manifest.part", start);
    file("segment-000000.part", "hello");
    recover();
    EXPECT_EQ(manifest(), std::string(kFirst) +
                              "unfinished file=segment-000000.part bytes=5 crc32=3610a686\n" +
                              kNothingWhole)
        << start;
  }
}

TEST_F(RecoveryTest, AFolderWithoutAnyFileGetsAManifest) {
  recover();
  EXPECT_EQ(manifest(), std::string(kFirst) + kNothingWhole);
}

TEST_F(RecoveryTest, SegmentsWithoutDataAreCounted) {
  file("manifest.part", std::string(kFirst) + kHello + kEmpty);
  file("segment-000000", "hello");
  recover();
  EXPECT_TRUE(manifest().ends_with(
      std::string(kEmpty) +
      "receipt stream=20261121T023224-4711_0 records=5 bytes=5 segments=1 end=cut-off\n"
      "records=5\nbytes=5\nend=cut-off\nreason=the server died\n"))
      << manifest();
}

TEST_F(RecoveryTest, OtherRecordsAreUnfinishedUntilTheStreamHasEnded) {
  file("manifest.part", kFirst);
  file("other-records", "rec");
  file("somebody's", "note");
  recover();
  EXPECT_EQ(manifest(), std::string(kFirst) +
                            "unfinished file=other-records bytes=3 crc32=6405ca2c\n" +
                            kNothingWhole);
}

TEST_F(RecoveryTest, AStreamThatMissedOnlyItsManifestsNameKeepsItsEnding) {
  file("manifest.part", std::string(kFirst) + kHello + kClosed);
  file("segment-000000", "hello");
  recover();
  EXPECT_EQ(files(), (Names{"manifest", "segment-000000"}));
  EXPECT_EQ(manifest(), std::string(kFirst) + kHello + kClosed);
  expectLogged(ox::Kind::info, 0,
               "finished what a dead server left: receipt stream=20261121T023224-4711_0 records=2 "
               "bytes=5 segments=1 end=closed");
}

TEST_F(RecoveryTest, AStreamThatHadEndedWithoutListingAFileIsNotWhole) {
  file("manifest.part", std::string(kFirst) + kHello + kClosed);
  file("segment-000000", "hello");
  file("segment-000001.part", "on");
  recover();
  EXPECT_EQ(files(), (Names{"manifest", "segment-000000", "segment-000001.part"}));
  EXPECT_EQ(manifest(), std::string(kFirst) + kHello +
                            "unfinished file=segment-000001.part bytes=2 crc32=09b629c8\n" +
                            kHelloWhole);
}

TEST_F(RecoveryTest, AnEndingThatIsTornIsNone) {
  const std::string ending = kClosed;
  for (std::size_t size = 0; size < ending.size(); ++size) {
    std::filesystem::remove(folder + "/manifest");
    file("manifest.part", std::string(kFirst) + kHello + ending.substr(0, size));
    file("segment-000000", "hello");
    recover();
    EXPECT_EQ(manifest(), std::string(kFirst) + kHello + kHelloWhole) << size;
  }
}

TEST_F(RecoveryTest, AStreamThatHadEndedIsBrokenByDamage) {
  file("manifest.part", std::string(kFirst) + kHello + kClosed);
  file("segment-000000", "hellp");
  recover();
  EXPECT_EQ(manifest(), std::string(kFirst) + kHello +
                            "damaged file=segment-000000 reason=its checksum is bb18ab73 instead "
                            "of 3610a686\n" +
                            kNothingButDamage);
}

TEST_F(RecoveryTest, OtherRecordsOfAStreamThatHadEndedAreChecked) {
  const std::string ending =
      "other-records=1 bytes=2 crc32=39119811\n"
      "skipped=0\n"
      "receipt stream=20261121T023224-4711_0 records=1 bytes=2 segments=0 end=stopped\n"
      "records=1\nbytes=2\nend=stopped\nreason=\n";
  file("manifest.part", kFirst + ending);
  file("other-records", std::string(48, 'h') + "hi");
  recover();
  EXPECT_EQ(manifest(), kFirst + ending);

  std::filesystem::remove(folder + "/manifest");
  file("manifest.part", kFirst + ending);
  file("other-records", std::string(48, 'h') + "ho");
  recover();
  EXPECT_EQ(manifest(), std::string(kFirst) +
                            "damaged file=other-records reason=its checksum is d0723d24 instead "
                            "of 39119811\n" +
                            kNothingButDamage);
}

TEST_F(RecoveryTest, ARecoveryThatWasKilledIsDoneAgain) {
  file("manifest.part", std::string(kFirst) + kHello +
                            "unfinished file=segment-000001.part bytes=2 crc32=09b629c8\n" +
                            kHelloWhole);
  file("segment-000000", "hello");
  file("segment-000001.part", "on");
  recover();
  EXPECT_EQ(manifest(), std::string(kFirst) + kHello +
                            "unfinished file=segment-000001.part bytes=2 crc32=09b629c8\n" +
                            kHelloWhole);
}

TEST_F(RecoveryTest, ASecondTimeFindsNothingToDo) {
  file("manifest.part", std::string(kFirst) + kHello);
  file("segment-000000", "hello");
  recover();
  const std::string first = manifest();
  sink.take();
  file("segment-000000", "hellp");
  recover();
  EXPECT_EQ(manifest(), first);
  EXPECT_EQ(sink.take(), std::vector<Line>{});
}

TEST_F(RecoveryTest, WhatIsNotAStreamOfThisQueueIsLeftAlone) {
  std::filesystem::remove(folder);
  for (const char* name : {"q-b-20261121T023224-4711_0", "other-20261121T023224-4711_0",
                           "q-20261121T023224-4711_0.old", "q-notes", "q-20261121T023224-4711_",
                           "xq-20261121T023224-4711_0"}) {
    const std::string path = store.path() + "/" + name;
    std::filesystem::create_directory(path);
    writeFile(path + "/manifest.part", "x");
    recover();
    EXPECT_EQ(namesIn(path), Names{"manifest.part"}) << name;
  }
  writeFile(folder, "a file of that name");
  writeFile(store.path() + "/q-outside-records", "records");
  recover();
  EXPECT_EQ(sink.take(), std::vector<Line>{});
}

TEST_F(RecoveryTest, EachStreamIsRecovered) {
  file("manifest.part", kFirst);
  std::filesystem::create_directory(store.path() + "/q-20261121T023224-4711_1");
  recover();
  EXPECT_EQ(files(), Names{"manifest"});
  EXPECT_EQ(namesIn(store.path() + "/q-20261121T023224-4711_1"), Names{"manifest"});
  EXPECT_EQ(sink.take().size(), 2U);
}

TEST_F(RecoveryTest, AManifestOfMoreThan64KiBIsReadToItsLastByte) {
  const std::string empty = kEmpty;
  std::string longer = empty;
  longer.replace(longer.find("records=3"), 9, "records=10");
  std::string text = kFirst;
  // One byte more than is read at once.
  const std::size_t lines = (65537 - text.size()) / empty.size();
  const std::size_t longLines = (65537 - text.size()) % empty.size();
  for (std::size_t i = 0; i < lines; ++i) {
    text += i < longLines ? longer : empty;
  }
  ASSERT_EQ(text.size(), 65537U);
  file("manifest.part", text);
  recover();
  EXPECT_TRUE(manifest().ends_with(
      "receipt stream=20261121T023224-4711_0 records=2591 bytes=0 segments=0 end=cut-off\n"
      "records=2591\nbytes=0\nend=cut-off\nreason=the server died\n"))
      << manifest().substr(65537);
  EXPECT_EQ(manifest().substr(0, 65537), text);
}

TEST_F(RecoveryTest, OtherRecordsAreListedWithMoreThan4GiBOfHeaders) {
  file("manifest.part",
       std::string(kFirst) +
           "other-records=89478486 bytes=5 crc32=39119811\n"
           "skipped=0\n"
           "receipt stream=20261121T023224-4711_0 records=89478486 bytes=5 segments=0 end=closed\n"
           "records=89478486\nbytes=5\nend=closed\nreason=\n");
  file("other-records", "rec");
  recover();
  EXPECT_EQ(manifest(), std::string(kFirst) +
                            "damaged file=other-records reason=it has 3 bytes instead of "
                            "4294967333\n" +
                            kNothingButDamage);
}

TEST_F(RecoveryTest, AnUnlistedSegmentThatCannotBeReadIsDamaged) {
  std::filesystem::create_directory(folder + "/segment-000000.part");
  recover();
  EXPECT_EQ(manifest(),
            std::string(kFirst) +
                "damaged file=segment-000000.part reason=Invalid argument: cannot read " + folder +
                "/segment-000000.part\n" + kNothingButDamage);
}

TEST_F(RecoveryTest, AWorkersDeathIsSaidToBeItsOwn) {
  orvaned::LocalUnfinishedStreams streams(store.path(), [](const std::string&) { return true; });
  orvaned::recoverStreams(streams, Sync::segment, "its worker");
  EXPECT_EQ(manifest(),
            std::string(kFirst) +
                "receipt stream=20261121T023224-4711_0 records=0 bytes=0 segments=0 end=cut-off\n"
                "records=0\nbytes=0\nend=cut-off\nreason=its worker died\n");
  expectLogged(ox::Kind::info, 0,
               "finished what a dead worker left: receipt stream=20261121T023224-4711_0 records=0 "
               "bytes=0 segments=0 end=cut-off");
}

TEST_F(RecoveryTest, AStreamThatSomebodyElseFinishedMeanwhileIsLeftAlone) {
  orvaned::LocalUnfinishedStreams streams(store.path(), [](const std::string&) { return true; });
  file("manifest", "somebody else's");
  file("segment-000000", "hello");
  orvaned::recoverStreams(streams, Sync::segment, "the server");
  EXPECT_EQ(files(), (Names{"manifest", "segment-000000"}));
  EXPECT_EQ(manifest(), "somebody else's");
  EXPECT_EQ(sink.take(), std::vector<Line>{});
}

TEST_F(RecoveryTest, AFolderIsRemovedThatGotNoName) {
  std::filesystem::remove(folder);
  const std::string id = "-20261121T023224-4711_";
  for (const std::string& name :
       {".q" + id + "0.new", ".q" + id + "1", "q" + id + "2.new", ".other" + id + "3.new"}) {
    std::filesystem::create_directory(store.path() + "/" + name);
  }
  recover();
  EXPECT_EQ(namesIn(store.path()),
            (Names{".other" + id + "3.new", ".q" + id + "1", "q" + id + "2.new"}));
  for (const std::string& name : namesIn(store.path())) {
    EXPECT_EQ(namesIn(store.path() + "/" + name), Names{}) << name;
  }
  EXPECT_EQ(sink.take(), std::vector<Line>{});
}

TEST_F(RecoveryTest, AFolderThatIsLinkedFromTheStoreIsLeftAlone) {
  const TempFolder elsewhere;
  std::filesystem::remove(folder);
  std::filesystem::create_directory_symlink(elsewhere.path(), folder);
  recover();
  EXPECT_EQ(namesIn(elsewhere.path()), Names{});
  EXPECT_EQ(sink.take(), std::vector<Line>{});
}

TEST_F(RecoveryTest, AFullDiskLeavesTheStreamToTheNextStart) {
  file("manifest.part", std::string(kFirst) + kHello);
  file("segment-000000", "hello");
  {
    FileSizeLimit full(200);
    recover();
  }
  EXPECT_EQ(files(), (Names{"manifest.part", "segment-000000"}));
  expectLogged(ox::Kind::error, 1003,
               "cannot finish what a dead server left, the next start tries again: File too large: "
               "cannot write " +
                   folder + "/manifest.part");
  recover();
  EXPECT_EQ(manifest(), std::string(kFirst) + kHello + kHelloWhole);
}

}  // namespace
