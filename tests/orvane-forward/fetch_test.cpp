#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>

#include "orvane-forward/forwarding.hpp"
#include "support/eventually.hpp"
#include "support/text.hpp"

namespace orvane::test::fetch_program {
namespace {

namespace fs = std::filesystem;

class Fetch : public Forwarding {
 protected:
  void forward() { ASSERT_EQ(forwardAll().how, "exit 0"); }
  const std::string folder = fetched.path() + "/stream";
};

TEST_F(Fetch, SaysWhatItHasFetched) {
  writeStream(kFirst);
  forward();
  const Ended ended = fetch(kFirstName, folder);

  EXPECT_EQ(ended.how, "exit 0") << ended.err;
  EXPECT_TRUE(matches(ended.out, "fetched " + kFirstName + ", 3 files, [^\n]+\n"));
  EXPECT_EQ(ended.err, "");
  EXPECT_EQ(runOrvane({"verify", folder}).how, "exit 0");
  EXPECT_EQ(runOrvane({"cat", folder}).out, "helloworld!");
}

TEST_F(Fetch, PrintsJson) {
  writeStream(kFirst);
  forward();
  const Ended ended = fetch(kFirstName, folder, {"--json"});

  EXPECT_TRUE(matches(ended.out, "\\{\"stream\":\"" + kFirstName + "\",\"folder\":\"" + folder +
                                     "\",\"files\":3,\"bytes\":[0-9]+,\"seconds\":[0-9.]+,"
                                     "\"faults\":\\[\\]\\}\n"));
}

TEST_F(Fetch, FollowsAStreamThatIsForwardedMeanwhile) {
  writeStream(kFirst);
  forward();
  Process following({ORVANE_PATH, "fetch", kSecondName, folder, "--nats", nats.url(), "--follow"});
  ASSERT_TRUE(eventually([&] { return fs::exists(folder); }));
  writeStream(kSecond);
  forward();

  const Ended ended = following.wait();
  EXPECT_EQ(ended.how, "exit 0") << ended.err;
  EXPECT_TRUE(matches(ended.out, "fetched segment-000000\nfetched segment-000001\nfetched " +
                                     kSecondName + ", 3 files, [^\n]+\n"));
  expectSame(kSecond, folder);
}

TEST_F(Fetch, GoesOnAfterTheServerWasKilled) {
  writeLarge(kFirst, 40000000);
  forward();
  Process fetching({ORVANE_PATH, "fetch", kFirstName, folder, "--nats", nats.url()});
  ASSERT_TRUE(eventually([&] { return fs::exists(folder + "/.segment-000000.new"); }));
  nats.kill();
  nats.start();

  const Ended ended = fetching.wait();
  EXPECT_EQ(ended.how, "exit 0") << ended.err;
  expectSame(kFirst, folder);
}

TEST_F(Fetch, NamesAChunkThatIsDamaged) {
  makeStream("");
  writeStream(kFirst);
  const std::string subject = "orvane.1.host.orders." + kFirst + ".segment-000000.0-5";
  nats.ask(subject, "other");
  forward();
  const Ended ended = fetch(kFirstName, folder);

  EXPECT_EQ(ended.how, "exit 1");
  EXPECT_TRUE(contains(ended.out, "chunk " + subject + " is damaged: its offset is ''\n"));
  EXPECT_TRUE(contains(ended.out, "segment-000000: it is missing\n"));
  EXPECT_EQ(ended.err, "orvane fetch: the stream is damaged\n");
}

TEST_F(Fetch, NeedsAStreamThatIsThere) {
  writeStream(kFirst);
  forward();
  const Ended ended = fetch(kSecondName, folder);

  EXPECT_EQ(ended.how, "exit 1");
  EXPECT_EQ(ended.err, "orvane fetch: the cluster has no stream " + kSecondName +
                           ": orvane streams --nats lists all streams\n");
}

TEST_F(Fetch, NeedsAllOfIt) {
  makeStream("");
  nats.ask("orvane.1.host.orders." + kFirst + ".segment-000000.0-5", "hello");
  const Ended ended = fetch(kFirstName, folder);

  EXPECT_EQ(ended.how, "exit 1");
  EXPECT_EQ(ended.err, "orvane fetch: the stream " + kFirstName +
                           " is not forwarded completely: orvane fetch --follow waits for the "
                           "rest\n");
}

TEST_F(Fetch, GivesUpWhenNoServerAnswers) {
  nats.kill();
  const Ended ended = fetch(kFirstName, folder, {"--timeout", "1"});

  EXPECT_EQ(ended.how, "exit 1");
  EXPECT_TRUE(startsWith(
      ended.err, "orvane fetch: the cluster has not answered for 1 seconds: no server of "));
}

TEST_F(Fetch, WritesOverNoOtherFolder) {
  writeStream(kFirst);
  forward();
  ASSERT_EQ(fetch(kFirstName, folder).how, "exit 0");
  const Ended again = fetch(kFirstName, folder);

  EXPECT_EQ(again.how, "exit 1");
  EXPECT_EQ(again.err, "orvane fetch: the folder " + folder +
                           " is in use: it has manifest; name another one\n");
}

TEST_F(Fetch, ListsTheStreamsOfTheCluster) {
  writeStream(kSecond, "stopped");
  writeStream(kFirst);
  forward();
  const Ended table = list();

  EXPECT_EQ(table.how, "exit 0") << table.err;
  EXPECT_EQ(
      table.out,
      "BEGUN                        TIME     SIZE   RECORDS  SEGMENTS  END      USER      "
      "STREAM\n"
      "2026-11-21T02:32:24Z      7.004 s     11 B         2         2  closed   -         " +
          kFirstName +
          "\n"
          "2026-11-21T02:32:30Z      1.004 s     11 B         2         2  stopped  -         " +
          kSecondName + "\n");
  EXPECT_EQ(
      list({"--end", "stopped", "--json"}).out,
      "{\"stream\":\"" + kSecond +
          "\",\"queue\":\"orders\",\"label\":null,\"uid\":null,\"pid\":null,"
          "\"begun\":\"2026-11-21T02:32:30.000Z\",\"seconds\":1.004,\"records\":2,\"bytes\":11,"
          "\"segments\":2,\"end\":\"stopped\",\"host\":\"host\"}\n");
  EXPECT_EQ(list({"--queue", "none"}).out,
            "no stream is in the cluster that the options ask for\n");
}

TEST_F(Fetch, ListsTheSameStreamsAfterEachRestart) {
  for (int number = 0; number < 30; ++number) {
    writeStream("orders-20261121T023224-4711_" + std::to_string(number));
  }
  forward();
  const std::string before = list().out;
  ASSERT_TRUE(contains(before, "4711_29\n"));
  for (int restart = 0; restart < 5; ++restart) {
    nats.kill();
    nats.start();
    EXPECT_EQ(list().out, before);
  }
}

TEST_F(Fetch, ListsAStreamWhoseManifestHasSeveralChunks) {
  nats.kill();
  nats.configure("max_payload: 6000");
  nats.start();
  std::string lines = headOf(kFirst);
  for (int number = 0; number < 200; ++number) {
    lines += "segment number=" + std::to_string(number) +
             " records=0 bytes=0 algorithm=0 parameters=0,0,0 crc32=00000000 file=-\n";
  }
  write(kFirst, "manifest",
        withChecksum(lines + kNoOthers + endingOf(kFirst, "records=0 bytes=0 segments=0")));
  forward();

  EXPECT_TRUE(contains(list({"--json"}).out, "\"records\":0,\"bytes\":0,\"segments\":0,"));
  expectFetched(kFirst);
}

TEST_F(Fetch, IsReadByOtherLanguages) {
  writeLarge(kFirst, 3000000);
  writeStream(kSecond);
  forward();
  const std::string server = "127.0.0.1:" + std::to_string(nats.port());
  for (const std::string& id : {kFirst, kSecond}) {
    const std::string into = fetched.path() + "/" + id;
    const Ended ended = run({PYTHON_PATH, FETCH_STREAM_PATH, server, "host/orders/" + id, into});
    EXPECT_EQ(ended.how, "exit 0") << ended.err;
    expectSame(id, into);
  }
}

TEST_F(Fetch, FailsWhenItCannotWriteItsOutput) {
  writeStream(kFirst);
  forward();
  for (const std::string& command :
       {"fetch --nats " + nats.url() + " " + kFirstName + " " + folder,
        "streams --nats " + nats.url(), "streams --json --nats " + nats.url()}) {
    const Ended ended = run({"/bin/sh", "-c", ORVANE_PATH " " + command + " > /dev/full"});
    EXPECT_EQ(ended.how, "exit 1") << command;
    EXPECT_TRUE(contains(ended.err, ": cannot write all of it: No space left on device\n"));
  }
}

TEST_F(Fetch, IsInAPackageOfItsOwn) {
  fs::copy(ORVANE_PATH, fetched.path() + "/orvane");
  const Ended ended =
      run({fetched.path() + "/orvane", "fetch", kFirstName, folder, "--nats", nats.url()});

  EXPECT_EQ(ended.how, "exit 1");
  EXPECT_EQ(ended.err, "orvane fetch: " + fetched.path() +
                           "/orvane-fetch is missing: install the package orvane-forward\n");
  EXPECT_EQ(run({fetched.path() + "/orvane", "streams", "--nats", nats.url()}).err,
            "orvane streams: " + fetched.path() +
                "/orvane-fetch is missing: install the package orvane-forward\n");
}

TEST(FetchUse, ThatIsWrongIsExplained) {
  const std::pair<std::vector<std::string>, const char*> uses[] = {
      {{"fetch"}, "fetch: STREAM is required"},
      {{"fetch", "a/b/c"}, "fetch: DIR is required"},
      {{"fetch", "a/b/c", "dir"}, "fetch: --nats is required"},
      {{"fetch", "a/b", "dir"},
       "fetch: STREAM: must be HOST/QUEUE/STREAM, as orvane streams --nats lists it"},
      {{"streams", "--creds", "f"}, "streams: --creds needs --nats"},
      {{"streams", ".", "--nats", "a"}, "streams: STORE and --nats exclude each other"}};
  for (const auto& [arguments, message] : uses) {
    std::vector<std::string> words = {ORVANE_PATH};
    words.insert(words.end(), arguments.begin(), arguments.end());
    const Ended ended = run(words);
    EXPECT_EQ(ended.how, "exit 2");
    EXPECT_EQ(ended.err, std::string("orvane ") + message + " (orvane " + arguments.front() +
                             " --help shows the usage)\n");
  }
}

}  // namespace
}  // namespace orvane::test::fetch_program
