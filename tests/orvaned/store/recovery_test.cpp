// How a server finishes the streams of a dead one, and the manifest that they get.

#include "recovery_fixture.hpp"
#include "support/limits.hpp"

namespace orvane::test {
namespace {

TEST_F(RecoveryTest, AFolderWithoutAnyFileGetsAManifest) {
  recover();
  EXPECT_EQ(manifest(), kFirstAgain + kNothingWhole);
}

TEST_F(RecoveryTest, SegmentsWithoutDataAreCounted) {
  writeHello(kEmpty);
  recover();
  EXPECT_TRUE(manifest().ends_with(
      kEmpty +
      "receipt stream=20261121T023224-4711_0 records=5 bytes=5 segments=1 end=cut-off\n"
      "records=5\nbytes=5\nend=cut-off\nreason=the server died\n"))
      << manifest();
}

TEST_F(RecoveryTest, AStreamThatMissedOnlyItsManifestsNameKeepsItsEnding) {
  writeHello(kClosed);
  recover();
  EXPECT_EQ(files(), (Names{"manifest", "segment-000000"}));
  EXPECT_EQ(manifest(), kFirst + kHello + kClosed);
  expectLogged(ox::Kind::info, 0,
               "finished what a dead server left: receipt stream=20261121T023224-4711_0 records=2 "
               "bytes=5 segments=1 end=closed");
}

TEST_F(RecoveryTest, ASecondTimeFindsNothingToDo) {
  writeHello();
  recover();
  const std::string first = manifest();
  sink.take();
  file("segment-000000", "hellp");
  recover();
  EXPECT_EQ(manifest(), first);
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

TEST_F(RecoveryTest, AWorkersDeathIsSaidToBeItsOwn) {
  orvaned::LocalUnfinishedStreams streams(store.path());
  orvaned::recoverStreams(streams, orvaned::Sync::segment, "its worker");
  EXPECT_EQ(manifest(),
            kFirstAgain +
                "receipt stream=20261121T023224-4711_0 records=0 bytes=0 segments=0 end=cut-off\n"
                "records=0\nbytes=0\nend=cut-off\nreason=its worker died\n");
  expectLogged(ox::Kind::info, 0,
               "finished what a dead worker left: receipt stream=20261121T023224-4711_0 records=0 "
               "bytes=0 segments=0 end=cut-off");
}

TEST_F(RecoveryTest, AStreamThatSomebodyElseFinishedMeanwhileIsLeftAlone) {
  orvaned::LocalUnfinishedStreams streams(store.path());
  file("manifest", "somebody else's");
  file("segment-000000", "hello");
  orvaned::recoverStreams(streams, orvaned::Sync::segment, "the server");
  EXPECT_EQ(files(), (Names{"manifest", "segment-000000"}));
  EXPECT_EQ(manifest(), "somebody else's");
  EXPECT_EQ(sink.take(), std::vector<Line>{});
}

TEST_F(RecoveryTest, AFullDiskLeavesTheStreamToTheNextStart) {
  writeHello();
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
  EXPECT_EQ(manifest(), kFirst + kHello + kHelloWhole);
}

}  // namespace
}  // namespace orvane::test
