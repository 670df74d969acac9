// Compressed segments of a stream whose server died.

#include "orvaned/store/recovery_fixture.hpp"
#include "support/limits.hpp"
#include "support/process.hpp"
#include "support/wire.hpp"

namespace orvane::test {
namespace {

class CompressedRecovery : public RecoveryTest {
 protected:
  static std::string bytes(const std::string& digits) {
    const Bytes all = hex(digits);
    return {all.begin(), all.end()};
  }

  // Frames with a window of 2 MiB: "hello" in one block, then 1000 times 'x' in another.
  static constexpr char kThousand[] = "421f00 78";
  static constexpr char kFrameEnd[] = "010000";
  static inline const std::string kCut = bytes("28b52ffd 00 58 280000 68656c6c6f");
  static inline const std::string kWhole = kCut + bytes(kFrameEnd);
  static inline const std::string kListed =
      "segment number=0 records=2 bytes=5 algorithm=1 parameters=7,8,9 crc32=3610a686 stored=17 "
      "file=segment-000000.zst\n";
  static inline const std::string kUnfinished =
      "unfinished file=segment-000000.zst.part bytes=5 crc32=3610a686 stored=17\n";

  std::string content(const std::string& name) const { return readFile(folder + "/" + name); }
  std::string data(const std::string& name) const {
    const Ended ended = run({"zstdcat", folder + "/" + name});
    EXPECT_EQ(ended.how, "exit 0") << ended.err;
    return ended.out;
  }
};

TEST_F(CompressedRecovery, EndsAFrameThatWasCut) {
  file("manifest.part", kFirst);
  file("segment-000000.zst.part", kCut);
  recover();
  EXPECT_EQ(files(), (Names{"manifest", "segment-000000.zst.part"}));
  EXPECT_EQ(content("segment-000000.zst.part"), kWhole);
  EXPECT_EQ(data("segment-000000.zst.part"), "hello");
  EXPECT_EQ(manifest(), kFirst + kUnfinished + kNothingWhole);
}

TEST_F(CompressedRecovery, RemovesTheRestOfABlockThatIsNotWhole) {
  const std::string thousand = bytes(kThousand);
  const std::string expected = kFirst + kUnfinished + kNothingWhole;
  for (std::size_t size = 1; size < thousand.size(); ++size) {
    std::filesystem::remove(folder + "/manifest");
    file("manifest.part", kFirst);
    file("segment-000000.zst.part", kCut + thousand.substr(0, size));
    recover();
    EXPECT_EQ(content("segment-000000.zst.part"), kWhole) << size;
    EXPECT_EQ(manifest(), expected) << size;
  }
}

TEST_F(CompressedRecovery, MakesAnEmptyFrameOfAFileWithoutAHeader) {
  const std::string expected =
      kFirst + "unfinished file=segment-000000.zst.part bytes=0 crc32=00000000 stored=9\n" +
      kNothingWhole;
  for (std::size_t size = 0; size < 6; ++size) {
    std::filesystem::remove(folder + "/manifest");
    file("manifest.part", kFirst);
    file("segment-000000.zst.part", kCut.substr(0, size));
    recover();
    EXPECT_EQ(content("segment-000000.zst.part"), bytes("28b52ffd 20 00 010000"));
    EXPECT_EQ(data("segment-000000.zst.part"), "");
    EXPECT_EQ(manifest(), expected);
  }
}

TEST_F(CompressedRecovery, LeavesAFrameAloneThatHasItsEnd) {
  file("manifest.part", kFirst);
  file("segment-000000.zst.part", kWhole);
  recover();
  EXPECT_EQ(content("segment-000000.zst.part"), kWhole);
  EXPECT_EQ(manifest(), kFirst + kUnfinished + kNothingWhole);
}

TEST_F(CompressedRecovery, ChangesNothingInAFileThatIsNoFrame) {
  const std::string noFrame = kCut + bytes("060000") + bytes(kThousand);
  file("manifest.part", kFirst);
  file("segment-000000.zst.part", noFrame);
  recover();
  EXPECT_EQ(content("segment-000000.zst.part"), noFrame);
  EXPECT_EQ(manifest(), kFirst +
                            "damaged file=segment-000000.zst.part reason=its compressed data is "
                            "invalid: cannot read " +
                            folder + "/segment-000000.zst.part\n" + kNothingButDamage);
}

TEST_F(CompressedRecovery, IsLeftToTheNextStartIfTheDiskIsFull) {
  file("manifest.part", kFirst);
  file("segment-000000.zst.part", kCut);
  {
    FileSizeLimit full(15);
    recover();
  }
  EXPECT_EQ(content("segment-000000.zst.part"), kCut);
  EXPECT_EQ(files(), (Names{"manifest.part", "segment-000000.zst.part"}));
  expectLogged(ox::Kind::error, 1003,
               "cannot finish what a dead server left, the next start tries again: File too large: "
               "cannot write " +
                   folder + "/segment-000000.zst.part");
  recover();
  EXPECT_EQ(content("segment-000000.zst.part"), kWhole);
}

TEST_F(CompressedRecovery, GivesAListedFileTheNameThatItMissed) {
  file("manifest.part", kFirst + kListed);
  file("segment-000000.zst.part", kWhole);
  recover();
  EXPECT_EQ(files(), (Names{"manifest", "segment-000000.zst"}));
  EXPECT_EQ(content("segment-000000.zst"), kWhole);
  EXPECT_EQ(manifest(), kFirst + kListed + kHelloWhole);
}

TEST_F(CompressedRecovery, ChecksAListedFile) {
  file("manifest.part", kFirst + kListed);
  file("segment-000000.zst", kCut + bytes("29000068656c6c70"));
  recover();
  EXPECT_EQ(manifest(),
            kFirst + kListed +
                "damaged file=segment-000000.zst reason=it has 10 bytes instead of 5\n" +
                kNothingButDamage);
}

TEST_F(CompressedRecovery, FindsAListedFileWithoutItsEnd) {
  file("manifest.part", kFirst + kListed);
  file("segment-000000.zst", kCut);
  recover();
  EXPECT_EQ(manifest(), kFirst + kListed +
                            "damaged file=segment-000000.zst reason=its compressed data has no "
                            "end: cannot read all of " +
                            folder + "/segment-000000.zst\n" + kNothingButDamage);
}

TEST_F(CompressedRecovery, RemovesAPlainFileWhoseDataIsCompressed) {
  const std::string expected = kFirst + kUnfinished + kNothingWhole;
  for (const char* plain : {"hell", "hello"}) {
    std::filesystem::remove(folder + "/manifest");
    file("manifest.part", kFirst);
    file("segment-000000.part", plain);
    file("segment-000000.zst.part", kCut);
    recover();
    EXPECT_EQ(files(), (Names{"manifest", "segment-000000.zst.part"}));
    EXPECT_EQ(manifest(), expected);
  }
}

TEST_F(CompressedRecovery, RemovesACompressedFileThatDoesNotHaveAllDataYet) {
  const std::string expected =
      kFirst + "unfinished file=segment-000000.part bytes=6 crc32=9a86c960\n" + kNothingWhole;
  for (const std::string& compressed : {kCut, std::string()}) {
    std::filesystem::remove(folder + "/manifest");
    file("manifest.part", kFirst);
    file("segment-000000.part", "hello!");
    file("segment-000000.zst.part", compressed);
    recover();
    EXPECT_EQ(files(), (Names{"manifest", "segment-000000.part"}));
    EXPECT_EQ(content("segment-000000.part"), "hello!");
    EXPECT_EQ(manifest(), expected);
  }
}

TEST_F(CompressedRecovery, RemovesAPlainFileBesideAListedOne) {
  const std::string expected = kFirst + kListed + kClosed;
  for (const char* name : {"segment-000000.zst", "segment-000000.zst.part"}) {
    std::filesystem::remove(folder + "/manifest");
    std::filesystem::remove(folder + "/segment-000000.zst");
    file("manifest.part", expected);
    file("segment-000000.part", "hell");
    file(name, kWhole);
    recover();
    EXPECT_EQ(files(), (Names{"manifest", "segment-000000.zst"})) << name;
    EXPECT_EQ(manifest(), expected);
  }
}

TEST_F(CompressedRecovery, RemovesNeitherFileIfOneIsDamaged) {
  file("manifest.part", kFirst);
  file("segment-000000.part", "hello");
  file("segment-000000.zst.part", "hello");
  recover();
  EXPECT_EQ(files(), (Names{"manifest", "segment-000000.part", "segment-000000.zst.part"}));
  EXPECT_EQ(manifest(), kFirst +
                            "unfinished file=segment-000000.part bytes=5 crc32=3610a686\n"
                            "damaged file=segment-000000.zst.part reason=its compressed data is "
                            "invalid: cannot read " +
                            folder + "/segment-000000.zst.part\n" + kNothingButDamage);
}

TEST_F(CompressedRecovery, KeepsAListedFileThatIsShorterThanAPlainOne) {
  file("manifest.part", kFirst + kListed);
  file("segment-000000.part", "hello!");
  file("segment-000000.zst", kWhole);
  recover();
  EXPECT_EQ(files(), (Names{"manifest", "segment-000000.part", "segment-000000.zst"}));
}

}  // namespace
}  // namespace orvane::test
