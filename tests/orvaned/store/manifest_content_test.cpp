// The manifest that a server left when it died: torn, invalid, or longer than one read.

#include "recovery_fixture.hpp"

namespace orvane::test {
namespace {

TEST_F(RecoveryTest, ATornLineEndsTheManifest) {
  const std::string expected = kFirst + kHello +
                               "unfinished file=segment-000001.part bytes=3 crc32=7a6c86f1\n" +
                               kHelloWhole;
  for (const std::size_t size : {std::size_t{1}, kOne.size() / 2, kOne.size() - 1}) {
    std::filesystem::remove(folder + "/manifest");
    writeHello(kOne.substr(0, size));
    file("segment-000001.part", "one");
    recover();
    EXPECT_EQ(manifest(), expected) << size;
  }
}

TEST_F(RecoveryTest, ALineThatMakesNoSenseEndsTheManifest) {
  writeHello(std::string(40, '\0') + "\n" + kOne);
  file("segment-000001", "one");
  recover();
  EXPECT_EQ(manifest(), kFirst + kHello + "damaged file=segment-000001 reason=it is not listed\n" +
                            kHelloButDamage);
}

TEST_F(RecoveryTest, AManifestWithoutItsFirstLinesIsBegunAgain) {
  const std::string rest =
      "unfinished file=segment-000000.part bytes=5 crc32=3610a686\n" + kNothingWhole;
  const std::pair<std::string, const std::string&> starts[] = {
      {"", kFirstAgain},
      {"format=1", kFirstAgain},
      {std::string(50, '\0'), kFirstAgain},
      {"format=1\nqueue=q\nstream=20261121T023224-4711_1\n", kFirstAgain},
      {"format=1\n", kFirst},
      {"format=1\nqueue=q\nstr", kFirst}};
  for (const auto& [start, first] : starts) {
    std::filesystem::remove(folder + "/manifest");
    file("manifest.part", start);
    file("segment-000000.part", "hello");
    recover();
    EXPECT_EQ(manifest(), first + rest) << start;
  }
}

TEST_F(RecoveryTest, AnEndingThatIsTornIsNone) {
  const std::string expected = kFirst + kHello + kHelloWhole;
  for (std::size_t size = 0; size < kClosed.size(); ++size) {
    std::filesystem::remove(folder + "/manifest");
    writeHello(kClosed.substr(0, size));
    recover();
    EXPECT_EQ(manifest(), expected) << size;
  }
}

TEST_F(RecoveryTest, AManifestOfMoreThan64KiBIsReadToItsLastByte) {
  std::string longer = kEmpty;
  longer.replace(longer.find("records=3"), 9, "records=10");
  std::string text = kFirst;
  // One byte more than is read at once.
  const std::size_t lines = (65537 - text.size()) / kEmpty.size();
  const std::size_t longLines = (65537 - text.size()) % kEmpty.size();
  for (std::size_t i = 0; i < lines; ++i) {
    text += i < longLines ? longer : kEmpty;
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

}  // namespace
}  // namespace orvane::test
