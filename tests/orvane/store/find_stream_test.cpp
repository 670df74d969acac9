// Which stream a command means, by the example of orvane cat.

#include <gtest/gtest.h>

#include "orvane/store/store_fixture.hpp"
#include "support/text.hpp"

namespace orvane::test {
namespace {

class FindStream : public StoreTest {
 protected:
  FindStream() {
    for (const auto& [stream, content] :
         {std::pair(first, "first"), std::pair(second, "second"), std::pair(tenth, "tenth")}) {
      StoredText one = stream;
      one.segments = {content};
      add(one);
    }
  }

  std::string found(const std::string& text) const {
    const Ended ended = orvane({"cat", text}, store.path());
    EXPECT_EQ(ended.how, ended.err.empty() ? "exit 0" : "exit 1");
    return ended.out + ended.err;
  }

  const StoredText first = ofLease("app.log", "20261121T023224-4711_0", "2026-11-21T02:32:24.123Z");
  const StoredText second =
      ofLease("app.log.1", "20261121T023224-4711_1", "2026-11-21T02:32:24.124Z");
  const StoredText tenth = ofQueue("20261121T023224-4711_10", "2026-11-21T02:32:24.125Z");
};

TEST_F(FindStream, TakesAnIdAUniquePartOfItOrAPath) {
  EXPECT_EQ(found("backups-app.log-20261121T023224-4711_0"), "first");
  EXPECT_EQ(found("app.log-"), "first");
  EXPECT_EQ(found("log.1"), "second");
  EXPECT_EQ(found("orders"), "tenth");
  EXPECT_EQ(found(pathOf(second)), "second");
  EXPECT_EQ(found(pathOf(second) + "/"), "second");
}

TEST_F(FindStream, TakesWhatReceiptsCallTheStreamAlthoughItIsAlsoAPartOfAnother) {
  EXPECT_EQ(found("20261121T023224-4711_1"), "second");
  EXPECT_EQ(found("20261121T023224-4711_10"), "tenth");
}

TEST_F(FindStream, ListsThoseThatItMayBe) {
  EXPECT_EQ(found("app.log"), "orvane cat: 2 streams in the store " + store.path() +
                                  " have 'app.log' in their ids, name one of them: "
                                  "backups-app.log.1-20261121T023224-4711_1, "
                                  "backups-app.log-20261121T023224-4711_0\n");
}

TEST_F(FindStream, ListsAtMostTheTenNewest) {
  for (int number = 10; number < 19; ++number) {
    const std::string time = "20261121T0232" + std::to_string(number);
    add(ofQueue(time + "-4711_0", "2026-11-21T02:32:" + std::to_string(number) + ".000Z"));
  }
  std::string list;
  for (const char* second : {"24-4711_10", "18-4711_0", "17-4711_0", "16-4711_0", "15-4711_0",
                             "14-4711_0", "13-4711_0", "12-4711_0", "11-4711_0"}) {
    list += std::string("orders-20261121T0232") + second + ", ";
  }
  EXPECT_EQ(found("orders"), "orvane cat: 10 streams in the store " + store.path() +
                                 " have 'orders' in their ids, name one of them: " + list +
                                 "orders-20261121T023210-4711_0\n");
  add(ofQueue("20261121T023209-4711_0", "2026-11-21T02:32:09.000Z"));
  EXPECT_EQ(found("orders"), "orvane cat: 11 streams in the store " + store.path() +
                                 " have 'orders' in their ids, name one of them: " + list +
                                 "orders-20261121T023210-4711_0 and 1 more\n");
}

TEST_F(FindStream, TellsWhereItLooked) {
  EXPECT_EQ(found("none"), "orvane cat: no stream in the store " + store.path() +
                               " has 'none' in its id: orvane streams " + store.path() +
                               " lists all streams\n");
  EXPECT_EQ(found("./none"),
            "orvane cat: no stream is stored in ./none: name a folder with a "
            "manifest, such as STORE/ID\n");
}

TEST_F(FindStream, TakesNoOtherFolderForAStream) {
  std::filesystem::create_directory(store.path() + "/app.log-folder");
  writeFile(store.path() + "/app.log-file", "");
  std::filesystem::create_directory(store.path() + "/.app.log-20261121T023224-4711_7.new");
  EXPECT_EQ(found("app.log-"), "first");
}

TEST_F(FindStream, LooksIntoTheStoreThatIsNamed) {
  const TempFolder other;
  EXPECT_EQ(orvane({"cat", "--store", store.path(), "log.1"}, other.path()).out, "second");
  EXPECT_EQ(
      orvane({"cat", "log.1"}, store.path() + "/none").err,
      "orvane cat: cannot read the store " + store.path() + "/none: No such file or directory\n");
  EXPECT_EQ(orvane({"dump", "--store", store.path(), "log.1"}).out,
            orvane({"dump", pathOf(second)}).out);
}

TEST_F(FindStream, OfDumpTakesAFileFirst) {
  const std::string shown = orvane({"dump", pathOf(second)}).out;
  EXPECT_TRUE(contains(shown, "\nlabel=app.log.1\n"));
  EXPECT_EQ(orvane({"dump", "log.1"}, store.path()).out, shown);
  EXPECT_EQ(orvane({"dump", "none"}, store.path()).err,
            "orvane dump: there is no file none, and no stream in the store " + store.path() +
                " has 'none' in its id: orvane streams " + store.path() + " lists all streams\n");
}

}  // namespace
}  // namespace orvane::test
