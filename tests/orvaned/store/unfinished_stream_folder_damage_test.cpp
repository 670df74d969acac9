// Damaged files of a stream whose server died.

#include "recovery_fixture.hpp"

namespace orvane::test {
namespace {

TEST_F(RecoveryTest, AFlippedByteIsFound) {
  writeHello(kOne);
  file("segment-000001", "onf");
  recover();
  EXPECT_EQ(manifest(), kFirst + kHello + kOne +
                            "damaged file=segment-000001 reason=its checksum is e365d74b instead "
                            "of 7a6c86f1\n" +
                            kHelloButDamage);
  EXPECT_EQ(readFile(folder + "/segment-000001"), "onf");
  expectLogged(ox::Kind::warning, 1003,
               "finished what a dead server left: receipt stream=20261121T023224-4711_0 records=2 "
               "bytes=5 segments=1 end=broken; damaged files: 1, see its manifest");
}

TEST_F(RecoveryTest, ASegmentOfAnotherSizeIsFound) {
  writeHello(kOne);
  file("segment-000001", "on");
  recover();
  EXPECT_EQ(manifest(), kFirst + kHello + kOne +
                            "damaged file=segment-000001 reason=it has 2 bytes instead of 3\n" +
                            kHelloButDamage);
}

TEST_F(RecoveryTest, AListedSegmentThatIsNotWholeDoesNotGetItsName) {
  file("manifest.part", kFirst + kHello);
  file("segment-000000.part", "hell");
  recover();
  EXPECT_EQ(files(), (Names{"manifest", "segment-000000.part"}));
  EXPECT_EQ(manifest(), kFirst + kHello +
                            "damaged file=segment-000000 reason=it has 4 bytes instead of 5\n" +
                            kNothingButDamage);
}

TEST_F(RecoveryTest, AMissingSegmentIsFound) {
  file("manifest.part", kFirst + kHello);
  recover();
  EXPECT_EQ(manifest(), kFirst + kHello +
                            "damaged file=segment-000000 reason=No such file or directory: cannot "
                            "read " +
                            folder + "/segment-000000\n" + kNothingButDamage);
}

TEST_F(RecoveryTest, AStreamThatHadEndedIsBrokenByDamage) {
  file("manifest.part", kFirst + kHello + kClosed);
  file("segment-000000", "hellp");
  recover();
  EXPECT_EQ(manifest(), kFirst + kHello +
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
  EXPECT_EQ(manifest(), kFirst +
                            "damaged file=other-records reason=its checksum is d0723d24 instead "
                            "of 39119811\n" +
                            kNothingButDamage);
}

TEST_F(RecoveryTest, OtherRecordsAreListedWithMoreThan4GiBOfHeaders) {
  file("manifest.part",
       kFirst +
           "other-records=89478486 bytes=5 crc32=39119811\n"
           "skipped=0\n"
           "receipt stream=20261121T023224-4711_0 records=89478486 bytes=5 segments=0 end=closed\n"
           "records=89478486\nbytes=5\nend=closed\nreason=\n");
  file("other-records", "rec");
  recover();
  EXPECT_EQ(manifest(), kFirst +
                            "damaged file=other-records reason=it has 3 bytes instead of "
                            "4294967333\n" +
                            kNothingButDamage);
}

TEST_F(RecoveryTest, AnUnlistedSegmentThatCannotBeReadIsDamaged) {
  std::filesystem::create_directory(folder + "/segment-000000.part");
  recover();
  EXPECT_EQ(manifest(),
            kFirstAgain + "damaged file=segment-000000.part reason=Invalid argument: cannot read " +
                folder + "/segment-000000.part\n" + kNothingButDamage);
}

// A folder whose manifest can be opened but not read.
class UnreadableManifest : public orvaned::LocalDirectory {
 public:
  using LocalDirectory::LocalDirectory;
  tool::Fd read(const std::string& name) override {
    return name == "manifest.part" ? append(name) : LocalDirectory::read(name);
  }
};

class OneStream : public orvaned::UnfinishedStreams {
 public:
  explicit OneStream(const std::string& path)
      : stream{{.queue = "q", .stream = "20261121T023224-4711_0"},
               std::make_unique<UnreadableManifest>(path)} {}
  std::optional<orvaned::UnfinishedStream> next() override {
    return stream.folder ? std::optional(std::move(stream)) : std::nullopt;
  }

 private:
  orvaned::UnfinishedStream stream;
};

TEST_F(RecoveryTest, AManifestThatCannotBeReadIsLeftToTheNextStart) {
  writeHello();
  OneStream streams(folder);

  orvaned::recoverStreams(streams, orvaned::Sync::segment, "the server");

  EXPECT_EQ(readFile(folder + "/manifest.part"), kFirst + kHello);
  EXPECT_EQ(files(), (Names{"manifest.part", "segment-000000"}));
  expectLogged(ox::Kind::error, 1003,
               "cannot finish what a dead server left, the next start tries again: Bad file "
               "descriptor: cannot read " +
                   folder + "/manifest.part");
}

}  // namespace
}  // namespace orvane::test
