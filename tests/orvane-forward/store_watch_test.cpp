#include "store_watch.hpp"

#include <gtest/gtest.h>

#include <filesystem>
#include <stdexcept>

#include "orvane/store/stored_streams.hpp"
#include "store_format/forward_mark.hpp"
#include "support/eventually.hpp"

namespace orvane::test::store_watch {
namespace {

namespace fs = std::filesystem;

class StoreWatchTest : public StoredStreams {
 protected:
  // A stream of a server that stores it.
  void begin(const std::string& id) const {
    fs::create_directory(path("." + id + ".new"));
    writeFile(path("." + id + ".new", "manifest.part"), headOf(id));
    fs::rename(path("." + id + ".new"), path(id));
  }

  void end(const std::string& id) const {
    fs::rename(path(id, "manifest.part"), path(id, "manifest"));
  }

  // What is reported until something is; the reports are there at once.
  static Names changesOf(forward::StoreWatch& watch) {
    bool isIncomplete = false;
    Names changes = watch.changes(isIncomplete);
    EXPECT_FALSE(isIncomplete);
    return changes;
  }
};

TEST_F(StoreWatchTest, FindsWhatHasEndedAndIsNotMarked) {
  writeStream(kFirst);
  writeStream(kSecond);
  fs::create_directory(path("orders-outside-records"));
  const forward::Marks marks(store.path());
  marks.add(kFirst);
  forward::StoreWatch watch(store.path(), marks);

  const auto found = watch.lookAround(10);
  EXPECT_EQ(found.ids, Names{kSecond});
  EXPECT_EQ(found.count, 1U);
  EXPECT_EQ(watch.endedAfter("", 10).ids, (Names{kFirst, kSecond}));
  EXPECT_EQ(watch.endedAfter(kFirst, 10).ids, Names{kSecond});
  EXPECT_EQ(watch.lookAround(10, {kSecond}).count, 0U);
}

TEST_F(StoreWatchTest, ReturnsAFewOfManyAndCountsAll) {
  writeStream(kFirst);
  writeStream(kSecond);
  const forward::Marks marks(store.path());
  forward::StoreWatch watch(store.path(), marks);

  const auto found = watch.lookAround(1);
  EXPECT_EQ(found.ids, Names{kFirst});
  EXPECT_EQ(found.count, 2U);
}

TEST_F(StoreWatchTest, IsToldOfAStreamThatBeginsAndEnds) {
  const forward::Marks marks(store.path());
  forward::StoreWatch watch(store.path(), marks);
  begin(kFirst);
  EXPECT_EQ(changesOf(watch), Names{});
  EXPECT_EQ(watch.watched(), 1U);
  end(kFirst);
  EXPECT_EQ(changesOf(watch), Names{kFirst});
  EXPECT_EQ(watch.watched(), 0U);
  EXPECT_EQ(changesOf(watch), Names{});
}

TEST_F(StoreWatchTest, IsToldOfTheEndOfAStreamThatALookHasFound) {
  begin(kFirst);
  const forward::Marks marks(store.path());
  forward::StoreWatch watch(store.path(), marks);
  EXPECT_EQ(watch.lookAround(10).count, 0U);
  end(kFirst);
  EXPECT_EQ(changesOf(watch), Names{kFirst});
}

TEST_F(StoreWatchTest, IsToldOfAStreamThatEndsBeforeItIsWatched) {
  const forward::Marks marks(store.path());
  forward::StoreWatch watch(store.path(), marks);
  begin(kFirst);
  end(kFirst);
  EXPECT_EQ(changesOf(watch), Names{kFirst});
}

TEST_F(StoreWatchTest, ForgetsAStreamThatIsRemovedWhileItIsOpen) {
  begin(kFirst);
  const forward::Marks marks(store.path());
  forward::StoreWatch watch(store.path(), marks);
  EXPECT_EQ(watch.lookAround(10).count, 0U);
  EXPECT_EQ(watch.watched(), 1U);
  fs::remove_all(path(kFirst));
  EXPECT_EQ(changesOf(watch), Names{});
  EXPECT_EQ(watch.watched(), 0U);
}

TEST_F(StoreWatchTest, WatchesNothingThatIsMarked) {
  const forward::Marks marks(store.path());
  for (int number = 0; number < 100; ++number) {
    const std::string id = "orders-20261121T023224-1_" + std::to_string(number);
    writeStream(id);
    marks.add(id);
  }
  forward::StoreWatch watch(store.path(), marks);
  EXPECT_EQ(watch.lookAround(10).count, 0U);
  EXPECT_EQ(watch.watched(), 0U);
}

TEST_F(StoreWatchTest, NeedsAStore) {
  const forward::Marks marks(store.path());
  EXPECT_THROW(forward::StoreWatch(store.path() + "/none", marks), std::runtime_error);
}

TEST_F(StoreWatchTest, AMarkIsAnEmptyFileThatStaysUntilTheStreamIsGone) {
  writeStream(kFirst);
  const forward::Marks marks(store.path());
  EXPECT_FALSE(marks.has(kFirst));
  marks.add(kFirst);
  marks.add(kFirst);
  EXPECT_TRUE(marks.has(kFirst));
  EXPECT_EQ(readFile(store.path() + "/.forwarded/" + kFirst), "");

  marks.removeStale();
  EXPECT_TRUE(marks.has(kFirst));
  fs::remove_all(path(kFirst));
  marks.removeStale();
  EXPECT_FALSE(marks.has(kFirst));
}

TEST_F(StoreWatchTest, OneProcessHasTheMarksOfAStore) {
  const forward::Marks marks(store.path());
  try {
    const forward::Marks others(store.path());
    FAIL() << "two have them";
  } catch (const std::runtime_error& e) {
    EXPECT_EQ(e.what(), "another orvane-forward uses the store " + store.path());
  }
}

TEST_F(StoreWatchTest, AMarkIsSafeAfterTwiceTheTimeOfTheClustersSync) {
  const forward::Marks marks(store.path());
  EXPECT_FALSE(tool::isSafelyForwarded(store.path(), kFirst, tool::utcNow()));
  marks.add(kFirst);
  const auto marked = tool::markedAt(store.path(), kFirst);
  ASSERT_TRUE(marked);
  EXPECT_FALSE(tool::isSafelyForwarded(store.path(), kFirst, *marked + std::chrono::seconds(119)));
  EXPECT_TRUE(tool::isSafelyForwarded(store.path(), kFirst, *marked + std::chrono::seconds(120)));
}

}  // namespace
}  // namespace orvane::test::store_watch
