// What the programs say when they were built without libzstd: this executable has that part of
// them.

#include <gtest/gtest.h>

#include "options.hpp"
#include "orvaned/store/recovery_fixture.hpp"
#include "store/store.hpp"
#include "store_format/stored_file.hpp"
#include "store_format/zstd.hpp"

namespace orvane::test {
namespace {

constexpr char kMissing[] =
    "this program was built without libzstd, and cannot read or write compressed segments: use one "
    "that was built with it";

template <class Call>
std::string missing(Call call) {
  try {
    call();
    return "";
  } catch (const tool::ZstdMissing& e) {
    return e.what();
  }
}

class WithoutZstd : public RecoveryTest {};

TEST_F(WithoutZstd, CompressionIsRefusedWithTheCauseAndARemedy) {
  EXPECT_FALSE(tool::hasZstd());
  const char* const arguments[] = {"orvaned", "--queue=q", "--store=.", "--compress=zstd"};
  orvaned::Options options;
  testing::internal::CaptureStderr();
  EXPECT_EQ(orvaned::parseOptions(4, arguments, options), 2);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "orvaned: --compress: this orvaned was built without libzstd: use one that was built "
            "with it, or leave this option out (orvaned --help shows the usage)\n");
  EXPECT_EQ(orvaned::parseOptions(3, arguments, options), std::nullopt);
}

TEST_F(WithoutZstd, NothingIsCompressedInstead) {
  const auto makeStore = [](int level) {
    orvaned::Store("/dev/null", "q", orvaned::Sync::none, {.level = level});
  };
  EXPECT_EQ(missing([&] { makeStore(3); }), kMissing);
  EXPECT_EQ(missing([&] { makeStore(0); }), "");
}

TEST_F(WithoutZstd, ACompressedFileIsNotTakenForADamagedOne) {
  const std::string path = store.path() + "/segment-000000.zst";
  writeFile(path, "");
  EXPECT_EQ(missing([&] { tool::faultOf(path, {0, 0, 0}); }), kMissing);
  const std::string plain = store.path() + "/segment-000000";
  writeFile(plain, "");
  EXPECT_EQ(tool::faultOf(plain, {0, 0, 0}), "");
}

TEST_F(WithoutZstd, AStreamWithACompressedFileIsLeftToAnotherServer) {
  for (const char* name : {"segment-000000.zst", "segment-000000.zst.part"}) {
    file("manifest.part", kFirst);
    file(name, "any");
    recover();
    EXPECT_EQ(files(), (Names{"manifest.part", name}));
    EXPECT_EQ(readFile(folder + "/" + name), "any");
    expectLogged(ox::Kind::error, 1003,
                 "cannot finish what a dead server left, the next start tries again: " +
                     std::string(kMissing));
    std::filesystem::remove(folder + "/" + name);
  }
  recover();
  EXPECT_EQ(manifest(), kFirst + kNothingWhole);
}

}  // namespace
}  // namespace orvane::test
