#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "store/recovery.hpp"
#include "support/manifest.hpp"
#include "support/recording_sink.hpp"
#include "support/temp_folder.hpp"

namespace orvane::test {

// The folder of a stream whose server died, and what the next server does with it. The manifests
// here are of format 1, as earlier releases left them; recovery_format_test.cpp has those of
// format 2.
class RecoveryTest : public testing::Test {
 protected:
  using Names = std::vector<std::string>;

  // A manifest's lines. The files of the two segments hold "hello" and "one".
  static inline const std::string kFirst = "format=1\nqueue=q\nstream=20261121T023224-4711_0\n";
  // What a manifest gets whose own first lines are lost.
  static inline const std::string kFirstAgain =
      "format=2\nqueue=q\nstream=20261121T023224-4711_0\n";
  static inline const std::string kHello =
      "segment number=0 records=2 bytes=5 algorithm=1 parameters=7,8,9 crc32=3610a686 "
      "file=segment-000000\n";
  static inline const std::string kOne =
      "segment number=1 records=1 bytes=3 algorithm=0 parameters=0,0,0 crc32=7a6c86f1 "
      "file=segment-000001\n";
  static inline const std::string kEmpty =
      "segment number=1 records=3 bytes=0 algorithm=0 parameters=0,0,0 crc32=00000000 file=-\n";

  static inline const std::string kNothingWhole =
      "receipt stream=20261121T023224-4711_0 records=0 bytes=0 segments=0 end=cut-off\n"
      "records=0\nbytes=0\nend=cut-off\nreason=the server died\n";
  static inline const std::string kNothingButDamage =
      "receipt stream=20261121T023224-4711_0 records=0 bytes=0 segments=0 end=broken\n"
      "records=0\nbytes=0\nend=broken\nreason=the server died\n";
  static inline const std::string kHelloWhole =
      "receipt stream=20261121T023224-4711_0 records=2 bytes=5 segments=1 end=cut-off\n"
      "records=2\nbytes=5\nend=cut-off\nreason=the server died\n";
  static inline const std::string kHelloButDamage =
      "receipt stream=20261121T023224-4711_0 records=2 bytes=5 segments=1 end=broken\n"
      "records=2\nbytes=5\nend=broken\nreason=the server died\n";
  static inline const std::string kClosed =
      "other-records=0 bytes=0 crc32=00000000\n"
      "skipped=4\n"
      "receipt stream=20261121T023224-4711_0 records=2 bytes=5 segments=1 end=closed\n"
      "records=2\nbytes=5\nend=closed\nreason=\n";

  RecoveryTest() { std::filesystem::create_directory(folder); }

  void file(const std::string& name, const std::string& content) {
    writeFile(folder + "/" + name, content);
  }
  void recover() {
    orvaned::LocalUnfinishedStreams streams(store.path());
    orvaned::recoverStreams(streams, orvaned::Sync::segment, "the server");
  }

  // "hello" as the stream's first segment, listed, and `more` after it in the manifest.
  void writeHello(const std::string& more = "") {
    file("manifest.part", kFirst + kHello + more);
    file("segment-000000", "hello");
  }

  std::string manifest() const { return plainManifest(readFile(folder + "/manifest")); }
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

}  // namespace orvane::test
