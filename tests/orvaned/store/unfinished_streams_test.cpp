// Which folders of a store are streams that a dead server left.

#include <optional>
#include <thread>

#include "recovery_fixture.hpp"
#include "store/stream_directory.hpp"
#include "support/waiting_thread.hpp"

namespace orvane::test {
namespace {

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

TEST_F(RecoveryTest, AStreamWhoseFolderStaysLockedIsLeftAlone) {
  orvaned::LocalDirectory held(folder);
  ASSERT_TRUE(held.lock());
  const Stopwatch watch;
  recover();
  EXPECT_GE(watch.seconds(), 1.99) << "its holder may be about to die";
  EXPECT_EQ(files(), Names{});
  EXPECT_EQ(sink.take(), std::vector<Line>{});
}

TEST_F(RecoveryTest, AStreamIsFinishedIfItsFolderIsUnlockedMeanwhile) {
  std::optional<orvaned::LocalDirectory> held(folder);
  ASSERT_TRUE(held->lock());
  std::thread recovery([this] { recover(); });
  held.reset();
  recovery.join();
  EXPECT_EQ(files(), Names{"manifest"});
}

TEST_F(RecoveryTest, AStreamIsLockedWhileItIsFinished) {
  orvaned::LocalUnfinishedStreams streams(store.path(), [](const std::string&) { return true; });
  const auto stream = streams.next();
  ASSERT_TRUE(stream);
  EXPECT_FALSE(orvaned::LocalDirectory(folder).lock());
}

}  // namespace
}  // namespace orvane::test
