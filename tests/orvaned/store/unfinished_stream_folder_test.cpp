// Segments of a stream whose server died before it had finished or listed them.

#include "recovery_fixture.hpp"

namespace orvane::test {
namespace {

TEST_F(RecoveryTest, AWholeSegmentIsKeptAndAnUnfinishedOneIsListed) {
  writeHello();
  file("segment-000001.part", "on");
  recover();
  EXPECT_EQ(files(), (Names{"manifest", "segment-000000", "segment-000001.part"}));
  EXPECT_EQ(manifest(), kFirst + kHello +
                            "unfinished file=segment-000001.part bytes=2 crc32=09b629c8\n" +
                            kHelloWhole);
  EXPECT_EQ(readFile(folder + "/segment-000001.part"), "on");
  expectLogged(ox::Kind::info, 0,
               "finished what a dead server left: receipt stream=20261121T023224-4711_0 records=2 "
               "bytes=5 segments=1 end=cut-off");
}

TEST_F(RecoveryTest, AListedSegmentGetsTheNameThatItMissed) {
  file("manifest.part", kFirst + kHello);
  file("segment-000000.part", "hello");
  recover();
  EXPECT_EQ(files(), (Names{"manifest", "segment-000000"}));
  EXPECT_EQ(readFile(folder + "/segment-000000"), "hello");
  EXPECT_EQ(manifest(), kFirst + kHello + kHelloWhole);
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

TEST_F(RecoveryTest, OtherRecordsAreUnfinishedUntilTheStreamHasEnded) {
  file("manifest.part", kFirst);
  file("other-records", "rec");
  file("somebody's", "note");
  recover();
  EXPECT_EQ(manifest(),
            kFirst + "unfinished file=other-records bytes=3 crc32=6405ca2c\n" + kNothingWhole);
}

TEST_F(RecoveryTest, AStreamThatHadEndedWithoutListingAFileIsNotWhole) {
  writeHello(kClosed);
  file("segment-000001.part", "on");
  recover();
  EXPECT_EQ(files(), (Names{"manifest", "segment-000000", "segment-000001.part"}));
  EXPECT_EQ(manifest(), kFirst + kHello +
                            "unfinished file=segment-000001.part bytes=2 crc32=09b629c8\n" +
                            kHelloWhole);
}

TEST_F(RecoveryTest, AStreamThatHadEndedWithOtherRecordsButNotAllSegmentsIsNotWhole) {
  file("manifest.part",
       kFirst +
           "other-records=1 bytes=2 crc32=39119811\n"
           "skipped=0\n"
           "receipt stream=20261121T023224-4711_0 records=1 bytes=2 segments=0 end=stopped\n"
           "records=1\nbytes=2\nend=stopped\nreason=\n");
  file("other-records", std::string(48, 'h') + "hi");
  file("segment-000001.part", "on");
  recover();
  EXPECT_EQ(manifest(), kFirst +
                            "unfinished file=other-records bytes=50 crc32=39119811\n"
                            "unfinished file=segment-000001.part bytes=2 crc32=09b629c8\n" +
                            kNothingWhole);
}

TEST_F(RecoveryTest, AStreamThatHadEndedWithoutListingOtherRecordsIsNotWhole) {
  writeHello(kClosed);
  file("other-records", "rec");
  recover();
  EXPECT_EQ(manifest(), kFirst + kHello + "unfinished file=other-records bytes=3 crc32=6405ca2c\n" +
                            kHelloWhole);
}

TEST_F(RecoveryTest, ARecoveryThatWasKilledIsDoneAgain) {
  file("manifest.part", kFirst + kHello +
                            "unfinished file=segment-000001.part bytes=2 crc32=09b629c8\n" +
                            kHelloWhole);
  file("segment-000000", "hello");
  file("segment-000001.part", "on");
  recover();
  EXPECT_EQ(manifest(), kFirst + kHello +
                            "unfinished file=segment-000001.part bytes=2 crc32=09b629c8\n" +
                            kHelloWhole);
}

}  // namespace
}  // namespace orvane::test
