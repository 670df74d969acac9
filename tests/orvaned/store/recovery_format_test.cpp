// What a dead server left in format 2, and in one that is not known.

#include "recovery_fixture.hpp"

namespace orvane::test {
namespace {

class RecoveryInFormat2 : public RecoveryTest {
 protected:
  static inline const std::string kHead =
      "format=2\nqueue=orders\nstream=20261121T023224-4711_0\n"
      "producer=uid=1000 gid=100 pid=4712 executable=my%20backup\n"
      "label=app%20log\n"
      "begun=2026-11-21T02:32:24.123Z\n";
  static inline const std::string kPlainHead =
      kHead.substr(0, kHead.find("begun=")) + "begun=TIME\n";
  static inline const std::string kOthers = "other-records=0 bytes=0 crc32=00000000\nskipped=4\n";
  static inline const std::string kEnding =
      "receipt stream=20261121T023224-4711_0 records=2 bytes=5 segments=1 end=closed\n"
      "records=2\nbytes=5\nend=closed\nended=2026-11-21T02:32:31.004Z\nreason=\n";

  void expectRecovered(const std::string& lines) {
    std::filesystem::remove(folder + "/manifest");
    recover();
    EXPECT_EQ(manifest(), lines);
  }
};

TEST_F(RecoveryInFormat2, AStreamKeepsItsHeadAndEndsInItsFormat) {
  file("manifest.part", kHead + kHello);
  file("segment-000000", "hello");
  recover();
  EXPECT_EQ(manifest(), kPlainHead + kHello + kHelloWhole);
  EXPECT_TRUE(readFile(folder + "/manifest").starts_with(kHead + kHello));
  EXPECT_NE(readFile(folder + "/manifest").find("\nreason=the%20server%20died\ncrc32="),
            std::string::npos);
  EXPECT_EQ(sink.take(),
            (std::vector<Line>{
                {ox::Kind::info, 0,
                 "recovery::recover: queue orders: finished what a dead server left: receipt "
                 "stream=20261121T023224-4711_0 records=2 bytes=5 segments=1 end=cut-off"}}));
}

TEST_F(RecoveryInFormat2, AManifestThatMissedOnlyItsNameStaysAsItIs) {
  const std::string whole = withChecksum(kHead + kHello + kOthers + kEnding);
  file("manifest.part", whole);
  file("segment-000000", "hello");
  recover();
  EXPECT_EQ(readFile(folder + "/manifest"), whole);
}

TEST_F(RecoveryInFormat2, AnEndingThatIsTornIsNone) {
  const std::string lines = kHead + kHello;
  const std::string whole = withChecksum(lines + kOthers + kEnding);
  file("segment-000000", "hello");
  const std::string expected = kPlainHead + kHello + kHelloWhole;
  for (std::size_t size = lines.size(); size < whole.size(); ++size) {
    file("manifest.part", whole.substr(0, size));
    expectRecovered(expected);
  }
}

TEST_F(RecoveryInFormat2, AnEndingWhoseChecksumIsWrongIsNone) {
  const std::string whole = withChecksum(kHead + kHello + kOthers + kEnding);
  file("segment-000000", "hello");
  const std::string expected = kPlainHead + kHello + kHelloWhole;
  for (const char* const line : {"skipped=4", "ended=2026-11-21T02:32:31.004Z", "crc32="}) {
    std::string changed = whole;
    char& last = changed[whole.rfind(line) + std::string(line).size() - 1];
    last = static_cast<char>(last ^ 1);
    file("manifest.part", changed);
    expectRecovered(expected);
  }
}

TEST_F(RecoveryInFormat2, AHeadThatIsTornKeepsWhatCanBeRead) {
  file("segment-000000.part", "hello");
  const std::string rest =
      "unfinished file=segment-000000.part bytes=5 crc32=3610a686\n" + kNothingWhole;
  const std::string stream = "stream=20261121T023224-4711_0\n";
  const std::string producer = "producer=uid=1000 gid=100 pid=4712 executable=my%20backup\n";
  const std::pair<const char*, std::string> heads[] = {
      {"queue=ord", "format=2\nqueue=q\n" + stream},
      {"stream=2026", "format=2\nqueue=orders\n" + stream},
      {"producer=uid", "format=2\nqueue=orders\n" + stream},
      {"label=app", "format=2\nqueue=orders\n" + stream + producer},
      {"begun=20", "format=2\nqueue=orders\n" + stream + producer + "label=app%20log\n"}};
  for (const auto& [torn, head] : heads) {
    file("manifest.part", kHead.substr(0, kHead.find(torn) + std::string(torn).size()));
    expectRecovered(head + rest);
  }
}

TEST_F(RecoveryInFormat2, TheReasonsOfDamageAreEscaped) {
  file("manifest.part", kHead + kHello);
  file("segment-000000", "hellp");
  recover();
  EXPECT_NE(readFile(folder + "/manifest")
                .find("\ndamaged file=segment-000000 "
                      "reason=its%20checksum%20is%20bb18ab73%20instead%20of%203610a686\n"),
            std::string::npos);
  EXPECT_EQ(manifest(), kPlainHead + kHello +
                            "damaged file=segment-000000 reason=its checksum is bb18ab73 instead "
                            "of 3610a686\n" +
                            kNothingButDamage);
}

TEST_F(RecoveryInFormat2, WhatABrokerKnowsStandsInForAHeadThatIsLost) {
  class OneStream : public orvaned::UnfinishedStreams {
   public:
    explicit OneStream(const std::string& path) : path(path) {}
    std::optional<orvaned::UnfinishedStream> next() override {
      if (path.empty()) {
        return std::nullopt;
      }
      const tool::StreamHead known = {.queue = "orders",
                                      .stream = "20261121T023224-4711_0",
                                      .producer = tool::Producer{1000, 100, 4712, "my backup"},
                                      .label = "app log",
                                      .begun = tool::parseUtc("2026-11-21T02:32:24.123Z")};
      return orvaned::UnfinishedStream{
          known, std::make_unique<orvaned::LocalDirectory>(std::exchange(path, ""))};
    }

   private:
    std::string path;
  };
  file("manifest.part", "format=2\nqueue=orders\n");
  OneStream streams(folder);
  orvaned::recoverStreams(streams, orvaned::Sync::segment, "the server");
  EXPECT_TRUE(readFile(folder + "/manifest").starts_with(kHead)) << readFile(folder + "/manifest");
  EXPECT_EQ(manifest(), kPlainHead + kNothingWhole);
}

TEST_F(RecoveryTest, AFormatThatIsNotKnownIsLeftToTheServerThatKnowsIt) {
  const std::string theirs = "format=3\nqueue=q\nstream=20261121T023224-4711_0\n";
  file("manifest.part", theirs);
  file("segment-000000.part", "hello");
  recover();
  EXPECT_EQ(files(), (Names{"manifest.part", "segment-000000.part"}));
  EXPECT_EQ(readFile(folder + "/manifest.part"), theirs);
  expectLogged(ox::Kind::error, 1003,
               "cannot finish what a dead server left, the next start tries again: format 3 is not "
               "known: " +
                   folder +
                   "/manifest.part was written by another release: use that one to read it");
}

}  // namespace
}  // namespace orvane::test
