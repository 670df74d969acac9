#include <gtest/gtest.h>

#include "orvane/store/store_fixture.hpp"
#include "support/eventually.hpp"
#include "support/server.hpp"
#include "support/text.hpp"

namespace orvane::test {
namespace {

class Streams : public StoreTest {
 protected:
  std::string list(std::vector<std::string> options = {}) const {
    options.insert(options.begin(), {"streams", store.path()});
    const Ended ended = orvane(options);
    EXPECT_EQ(ended.how, "exit 0");
    EXPECT_EQ(ended.err, "");
    return ended.out;
  }

  // The ids that are listed with these options.
  std::vector<std::string> listed(std::vector<std::string> options = {}) const {
    options.emplace_back("--json");
    const std::string lines = list(options);
    const std::string begin = R"({"stream":")";
    std::vector<std::string> ids;
    for (std::size_t at = 0; (at = lines.find(begin, at)) != std::string::npos;) {
      at += begin.size();
      ids.push_back(lines.substr(at, lines.find('"', at) - at));
    }
    return ids;
  }
};

const StoredText kOfQueue = ofQueue("20261121T023224-4711_0", "2026-11-21T02:32:24.123Z");
const StoredText kOfLease =
    ofLease("app.log", "20261121T023225-4720_3", "2026-11-21T02:32:25.004Z");

TEST_F(Streams, AreListedOnALineEach) {
  add(kOfLease);
  StoredText cutOff = kOfQueue;
  cutOff.end = "cut-off";
  add(cutOff);

  EXPECT_EQ(list(),
            "BEGUN                        TIME     SIZE   RECORDS  SEGMENTS  END      USER      "
            "STREAM\n"
            "2026-11-21T02:32:24Z      6.881 s     11 B         2         2  cut-off  -         "
            "orders-20261121T023224-4711_0\n"
            "2026-11-21T02:32:25Z      6.000 s     11 B         2         2  closed   4294967290  "
            "backups-app.log-20261121T023225-4720_3\n");
}

TEST_F(Streams, HaveTheSameKeysInJson) {
  add(kOfLease);
  add(kOfQueue);

  EXPECT_EQ(list({"--json"}),
            R"({"stream":"orders-20261121T023224-4711_0","queue":"orders","label":null,)"
            R"("uid":null,"pid":null,"begun":"2026-11-21T02:32:24.123Z","seconds":6.881,)"
            R"("records":2,"bytes":11,"segments":2,"end":"closed"})"
            "\n"
            R"({"stream":"backups-app.log-20261121T023225-4720_3","queue":"backups",)"
            R"("label":"app.log","uid":4294967290,"pid":4712,)"
            R"("begun":"2026-11-21T02:32:25.004Z","seconds":6.0,)"
            R"("records":2,"bytes":11,"segments":2,"end":"closed"})"
            "\n");
}

TEST_F(Streams, AreInTheOrderInWhichTheyBegan) {
  const char* const begun = "2026-11-21T02:32:24.123Z";
  for (const char* number : {"10", "9", "0"}) {
    add(ofQueue(std::string("20261121T023224-4711_") + number, begun));
  }
  add(ofLease("z", "20261121T023224-4720_0", "2026-11-21T02:32:24.000Z"));
  add(ofLease("a", "20261121T023224-4730_0", "2026-11-21T02:32:24.999Z"));

  EXPECT_EQ(listed(), (std::vector<std::string>{
                          "backups-z-20261121T023224-4720_0", "orders-20261121T023224-4711_0",
                          "orders-20261121T023224-4711_9", "orders-20261121T023224-4711_10",
                          "backups-a-20261121T023224-4730_0"}));
}

// More than one thread reads them.
TEST_F(Streams, AreAllThereHoweverMany) {
  std::vector<std::string> expected;
  for (int number = 1000; number < 6000; ++number) {
    StoredText stream =
        ofQueue("20261121T023224-4711_" + std::to_string(number), "2026-11-21T02:32:24.123Z");
    stream.segments.clear();
    expected.push_back(add(stream).id);
  }
  EXPECT_EQ(listed(), expected);
}

TEST_F(Streams, MayBeOpen) {
  addOpen(kOfLease);

  EXPECT_TRUE(matches(list({"--json"}),
                      R"(\{"stream":"backups-app.log-20261121T023225-4720_3","queue":"backups",)"
                      R"("label":"app.log","uid":4294967290,"pid":4712,)"
                      R"("begun":"2026-11-21T02:32:25.004Z","seconds":-?[0-9.]+,)"
                      R"("records":null,"bytes":11,"segments":2,"end":"open"\})"
                      "\n"));
  EXPECT_TRUE(matches(list(),
                      "BEGUN [^\n]*\n2026-11-21T02:32:25Z +-?[0-9.]+ s +11 B +- +2  open   "
                      "  4294967290  backups-app.log-20261121T023225-4720_3\n"));
}

TEST_F(Streams, MayHaveJustBegun) {
  std::filesystem::create_directory(pathOf(kOfQueue));

  EXPECT_TRUE(matches(list({"--json"}),
                      R"(\{"stream":"orders-20261121T023224-4711_0","queue":"orders","label":null,)"
                      R"("uid":null,"pid":null,"begun":"2026-11-21T02:32:24.000Z",)"
                      R"("seconds":-?[0-9.]+,"records":null,"bytes":0,"segments":0,"end":"open"\})"
                      "\n"));
}

TEST_F(Streams, OfFormat1AreListedToo) {
  add(kOfQueue);
  write(kOfQueue, "manifest",
        "format=1\nqueue=orders\nstream=20261121T023224-4711_0\n"
        "receipt stream=20261121T023224-4711_0 records=4 bytes=17 segments=1 end=broken\n"
        "records=4\nbytes=17\nend=broken\nreason=the server died\n");

  EXPECT_EQ(list({"--json"}),
            R"({"stream":"orders-20261121T023224-4711_0","queue":"orders","label":null,)"
            R"("uid":null,"pid":null,"begun":"2026-11-21T02:32:24.000Z","seconds":null,)"
            R"("records":4,"bytes":17,"segments":1,"end":"broken"})"
            "\n");
}

TEST_F(Streams, AreListedWithWhatTheIdTellsIfTheManifestIsDamaged) {
  add(kOfQueue);
  write(kOfQueue, "manifest", "format=2\nrubbish\n");

  EXPECT_EQ(list({"--json"}),
            R"({"stream":"orders-20261121T023224-4711_0","queue":"orders","label":null,)"
            R"("uid":null,"pid":null,"begun":"2026-11-21T02:32:24.000Z","seconds":null,)"
            R"("records":null,"bytes":null,"segments":null,"end":null})"
            "\n");
  EXPECT_TRUE(list().ends_with(
      "2026-11-21T02:32:24Z            -        -         -         -  -        -         "
      "orders-20261121T023224-4711_0\n"));
}

TEST_F(Streams, AreNothingElseInTheStore) {
  writeFile(store.path() + "/orders-outside-records", "");
  std::filesystem::create_directory(store.path() + "/folder");
  std::filesystem::create_directory(store.path() + "/.orders-20261121T023224-4711_0.new");
  EXPECT_EQ(list(), "no stream is in the store " + store.path() + "\n");
  EXPECT_EQ(list({"--json"}), "");
}

TEST_F(Streams, CanBeSelected) {
  StoredText stopped = ofQueue("20261120T100000-4711_0", "2026-11-20T10:00:00.000Z");
  stopped.end = "stopped";
  add(stopped);
  add(kOfQueue);
  add(kOfLease);
  const std::vector<std::string> first = {stopped.id};
  const std::vector<std::string> both = {kOfQueue.id, kOfLease.id};

  EXPECT_EQ(listed({"--since", "2026-11-21"}), both);
  EXPECT_EQ(listed({"--until", "2026-11-21"}), first);
  EXPECT_EQ(listed({"--since", "2026-11-20T10:00:00"}).size(), 3U);
  EXPECT_EQ(listed({"--until", "2026-11-20T10:00:00"}).size(), 0U);
  EXPECT_EQ(listed({"--since", "2026-11-21T02:32:25", "--until", "2026-11-21T02:33"}),
            std::vector<std::string>{kOfLease.id});
  EXPECT_EQ(listed({"-q", "orders"}), (std::vector<std::string>{stopped.id, kOfQueue.id}));
  EXPECT_EQ(listed({"--queue", "backups"}), std::vector<std::string>{kOfLease.id});
  EXPECT_EQ(listed({"--label", "app.log"}), std::vector<std::string>{kOfLease.id});
  EXPECT_EQ(listed({"--label", "app"}).size(), 0U);
  EXPECT_EQ(listed({"--end", "stopped"}), first);
  EXPECT_EQ(listed({"--end", "closed"}), both);
  EXPECT_EQ(listed({"--end", "open"}).size(), 0U);
  EXPECT_EQ(listed({"--since", "0s"}).size(), 0U);
  EXPECT_EQ(list({"--end", "broken"}),
            "no stream is in the store " + store.path() + " that the options ask for\n");
}

TEST_F(Streams, AreThoseOfTheStoreThatTheEnvironmentNames) {
  add(kOfQueue);
  EXPECT_EQ(orvane({"streams"}, store.path()).out, list());
  const TempFolder empty;
  EXPECT_EQ(orvane({"streams", store.path()}, empty.path()).out, list());
}

TEST_F(Streams, NeedAStoreThatCanBeRead) {
  const Ended ended = orvane({"streams", store.path() + "/none"});
  EXPECT_EQ(ended.how, "exit 1");
  EXPECT_EQ(ended.err, "orvane streams: cannot read the store " + store.path() +
                           "/none: No such file or directory\n");
}

TEST(StreamsOfAServer, HaveTheirLabelsAndEnds) {
  Server server;
  Process open(server.sendCommand({"-"}));
  open.write(std::string(2000000, 'x'));
  const std::vector<std::string> streams = {ORVANE_PATH, "streams", server.store(), "--json"};

  EXPECT_TRUE(eventually([&] {
    return matches(run(streams).out, R"(\{"stream":")" + server.queue() + R"(-[0-9T]+-[0-9]+_0",)" +
                                         R"("queue":")" + server.queue() +
                                         R"(","label":null,"uid":null,"pid":null,)"
                                         R"("begun":"[0-9TZ:.-]+","seconds":[0-9.]+,)"
                                         R"("records":null,"bytes":[1-9][0-9]*,"segments":1,)"
                                         R"("end":"open"\})"
                                         "\n");
  })) << run(streams).out;
  open.closeInput();
  EXPECT_EQ(open.wait().how, "exit 0");
  EXPECT_TRUE(
      contains(run(streams).out, R"("records":16,"bytes":2000000,"segments":1,"end":"closed"})"))
      << run(streams).out;
}

}  // namespace
}  // namespace orvane::test
