#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>

#include "orvane-forward/forwarding.hpp"
#include "support/eventually.hpp"
#include "support/text.hpp"

namespace orvane::test::forward_program {
namespace {

namespace fs = std::filesystem;

using Forward = Forwarding;

TEST_F(Forward, SendsWhatHasEndedAndMarksIt) {
  writeStream(kFirst);
  writeStream(kSecond, "stopped");
  fs::create_directory(path("orders-20261121T023300-4711_2"));
  const Ended ended = forwardAll();

  EXPECT_EQ(ended.how, "exit 0") << ended.err;
  EXPECT_EQ(messages(), 6);
  EXPECT_EQ(namesIn(store.path() + "/.forwarded"), (Names{kFirst, kSecond}));
  expectFetched(kFirst);
  expectFetched(kSecond);
}

TEST_F(Forward, CutsLargeFiles) {
  writeLarge(kFirst, 3000000);
  ASSERT_EQ(forwardAll().how, "exit 0");

  EXPECT_EQ(messages(), 5);
  expectFetched(kFirst);
}

TEST_F(Forward, StoresNothingTwiceWhenItHasLostItsMarks) {
  writeLarge(kFirst, 3000000);
  ASSERT_EQ(forwardAll().how, "exit 0");
  fs::remove_all(store.path() + "/.forwarded");
  ASSERT_EQ(forwardAll().how, "exit 0");

  EXPECT_EQ(messages(), 5);
  EXPECT_TRUE(isMarked(kFirst));
}

TEST_F(Forward, DoesNothingWhenAllIsMarked) {
  writeStream(kFirst);
  ASSERT_EQ(forwardAll().how, "exit 0");
  const Ended ended = forwardAll({"--metrics", fetched.path() + "/metrics"});

  EXPECT_EQ(ended.how, "exit 0");
  EXPECT_FALSE(contains(ended.err, "is forwarded"));
  EXPECT_TRUE(
      contains(readFile(fetched.path() + "/metrics"), "\norvane_forward_streams_total 0\n"));
}

// The slow look around would find the stream only after five minutes.
TEST_F(Forward, IsToldOfNewStreams) {
  Process forward(forwardCommand());
  ASSERT_TRUE(eventually([&] { return contains(forward.errorOutput(), "can be used"); }));
  writeStream(kFirst);
  EXPECT_TRUE(eventually([&] { return isMarked(kFirst); }));
  expectFetched(kFirst);

  forward.signal(SIGTERM);
  EXPECT_EQ(forward.wait().how, "exit 0");
}

TEST_F(Forward, GoesOnWhenTheServerIsBack) {
  Process forward(forwardCommand());
  ASSERT_TRUE(eventually([&] { return contains(forward.errorOutput(), "can be used"); }));
  nats.kill();
  writeStream(kFirst);
  ASSERT_TRUE(eventually([&] { return contains(forward.errorOutput(), "trying again"); }));
  EXPECT_FALSE(isMarked(kFirst));
  nats.start();

  EXPECT_TRUE(eventually([&] { return isMarked(kFirst); }));
  EXPECT_EQ(messages(), 3);
  expectFetched(kFirst);
}

TEST_F(Forward, WaitsForAServerThatIsNotThereYet) {
  nats.kill();
  writeStream(kFirst);
  Process forward(forwardCommand({"--once"}));
  ASSERT_TRUE(eventually([&] { return contains(forward.errorOutput(), "can be reached"); }));
  nats.start();

  EXPECT_EQ(forward.wait().how, "exit 0");
  expectFetched(kFirst);
}

TEST_F(Forward, MayBeKilledAtAnyInstant) {
  for (int number = 0; number < 20; ++number) {
    writeLarge("orders-20261121T023224-4711_" + std::to_string(number), 200000);
  }
  int killed = 0;
  for (std::size_t least = 1; least < 20; least += 4) {
    Process forward(forwardCommand());
    ASSERT_TRUE(eventually([&] {
      return fs::exists(store.path() + "/.forwarded") &&
             namesIn(store.path() + "/.forwarded").size() >= least;
    }));
    killed += forward.hasEnded() ? 0 : 1;
    forward.signal(SIGKILL);
    forward.wait();
  }
  EXPECT_EQ(killed, 5);
  ASSERT_EQ(forwardAll().how, "exit 0");
  EXPECT_EQ(messages(), 40);
  expectFetched("orders-20261121T023224-4711_19");
}

TEST_F(Forward, EndsAfterTheTimeoutAndSaysWhatIsLeft) {
  writeStream(kFirst);
  nats.kill();
  const Ended ended = run(forwardCommand({"--once", "--timeout", "1"}));

  EXPECT_EQ(ended.how, "exit 1");
  EXPECT_TRUE(contains(ended.err, "1 stream left: " + kFirst + "\n"));
}

TEST_F(Forward, LeavesAStreamWithADamagedManifestAndNamesIt) {
  writeStream(kFirst);
  writeStream(kSecond);
  std::string manifest = readFile(path(kFirst, "manifest"));
  manifest.replace(manifest.find("bytes=5"), 7, "bytes=6");
  write(kFirst, "manifest", manifest);
  const Ended ended = forwardAll({"--metrics", fetched.path() + "/metrics"});

  EXPECT_EQ(ended.how, "exit 1");
  EXPECT_TRUE(contains(ended.err, "stream " + kFirst + " stays here: its manifest is damaged: "));
  EXPECT_FALSE(isMarked(kFirst));
  EXPECT_TRUE(isMarked(kSecond));
  EXPECT_TRUE(
      contains(readFile(fetched.path() + "/metrics"), "\norvane_forward_unreadable_streams 1\n"));
}

TEST_F(Forward, SendsWhatIsLeftOfADamagedStreamAndFetchNamesTheDamage) {
  writeStream(kFirst);
  write(kFirst, "segment-000001", "worse!");
  const Ended ended = forwardAll();
  EXPECT_EQ(ended.how, "exit 0");
  EXPECT_TRUE(contains(ended.err, " is damaged in the store: segment-000001: its checksum is "));

  const Ended read = fetch(kFirstName, fetched.path() + "/stream");
  EXPECT_EQ(read.how, "exit 1");
  EXPECT_TRUE(contains(read.out, "segment-000001: its checksum is "));
  expectSame(kFirst, fetched.path() + "/stream");
}

TEST_F(Forward, RefusesASettingThatWouldLoseData) {
  makeStream(R"(,"discard":"old","discard_new_per_subject":false)");
  writeStream(kFirst);
  const Ended ended = forwardAll();

  EXPECT_EQ(ended.how, "exit 2");
  EXPECT_TRUE(contains(ended.err, "the stream orvane is not used: it needs "));
  EXPECT_FALSE(isMarked(kFirst));
}

TEST_F(Forward, RefusesTooFewReplicas) {
  makeStream("");
  const Ended ended = forwardAll({"--replicas", "3"});

  EXPECT_EQ(ended.how, "exit 2");
  EXPECT_TRUE(contains(ended.err, "it has fewer than 3 replicas"));
}

TEST_F(Forward, CannotMakeReplicasOnOneServer) {
  const Ended ended = forwardAll({"--replicas", "3"});
  EXPECT_EQ(ended.how, "exit 2");
  EXPECT_TRUE(contains(ended.err, "the stream orvane cannot be made: "));
}

TEST_F(Forward, PausesWhileTheClusterIsFull) {
  makeStream(R"(,"max_bytes":400)");
  writeStream(kFirst);
  Process forward(forwardCommand({"--once"}));
  ASSERT_TRUE(eventually([&] { return contains(forward.errorOutput(), "the cluster is full"); }));
  EXPECT_FALSE(isMarked(kFirst));
  const std::string wider = nats.ask(
      "$JS.API.STREAM.UPDATE.orvane",
      R"({"name":"orvane","subjects":["orvane.1.>"],"retention":"limits","storage":"file",)"
      R"("num_replicas":1,"max_msgs_per_subject":1,"discard":"new",)"
      R"("discard_new_per_subject":true,"allow_direct":true,"max_consumers":-1,)"
      R"("max_msgs":-1,"max_bytes":1000000,"max_msg_size":-1,"max_age":0})");

  EXPECT_EQ(forward.wait().how, "exit 0") << wider;
  expectFetched(kFirst);
}

TEST_F(Forward, UsesSmallerChunksWhereTheLimitIsLower) {
  writeLarge(kFirst, 300000);
  nats.kill();
  nats.configure("max_payload: 65536");
  nats.start();
  ASSERT_EQ(forwardAll().how, "exit 0");

  EXPECT_EQ(messages(), 6);
  expectFetched(kFirst);
}

TEST_F(Forward, GoesOnAfterTheLimitWasChangedInTheMiddle) {
  writeLarge(kFirst, 300000);
  ASSERT_EQ(forwardAll().how, "exit 0");
  fs::remove(store.path() + "/.forwarded/" + kFirst);
  writeLarge(kSecond, 300000);
  nats.kill();
  nats.configure("max_payload: 65536");
  nats.start();
  ASSERT_EQ(forwardAll().how, "exit 0");

  expectFetched(kFirst);
  expectFetched(kSecond);
}

// The server ends the connection of a client that sends more than it takes.
TEST_F(Forward, ConnectsAgainWhenTheLimitIsLoweredWhileItRuns) {
  Process forward(forwardCommand());
  ASSERT_TRUE(eventually([&] { return contains(forward.errorOutput(), "can be used"); }));
  nats.configure("max_payload: 65536");
  nats.reload();
  writeLarge(kFirst, 300000);

  EXPECT_TRUE(eventually([&] { return isMarked(kFirst); })) << forward.errorOutput();
  expectFetched(kFirst);
}

TEST_F(Forward, VerifyOffersWhatTheClusterHasLost) {
  writeStream(kFirst);
  writeLarge(kSecond, 2000000);
  ASSERT_EQ(forwardAll().how, "exit 0");
  ASSERT_TRUE(contains(nats.ask("$JS.API.STREAM.PURGE.orvane"), "\"purged\""));
  ASSERT_EQ(forwardAll().how, "exit 0");
  EXPECT_EQ(messages(), 0);

  EXPECT_EQ(forwardAll({"--verify"}).how, "exit 0");
  EXPECT_EQ(messages(), 7);
  EXPECT_EQ(forwardAll({"--verify"}).how, "exit 0");
  EXPECT_EQ(messages(), 7);
  expectFetched(kFirst);
  expectFetched(kSecond);
}

TEST_F(Forward, VerifyNamesWhatDiffers) {
  makeStream("");
  writeStream(kFirst);
  const std::string subject = "orvane.1.host.orders." + kFirst + ".segment-000000.0-5";
  ASSERT_TRUE(contains(nats.ask(subject, "other"), "\"seq\""));
  EXPECT_EQ(forwardAll().how, "exit 0");
  const Ended ended = forwardAll({"--verify", "--metrics", fetched.path() + "/metrics"});

  EXPECT_EQ(ended.how, "exit 1");
  EXPECT_TRUE(contains(ended.err, "the cluster has another content under " + subject));
  EXPECT_TRUE(contains(readFile(fetched.path() + "/metrics"),
                       "\norvane_forward_differing_chunks_total 1\n"));
}

TEST_F(Forward, KeepsOneProcessAway) {
  Process forward(forwardCommand());
  ASSERT_TRUE(eventually([&] { return contains(forward.errorOutput(), "can be used"); }));
  const Ended second = forwardAll();

  EXPECT_EQ(second.how, "exit 1");
  EXPECT_TRUE(contains(second.err, "another orvane-forward uses the store "));
}

TEST_F(Forward, NeedsAStore) {
  const Ended ended = run({ORVANE_FORWARD_PATH, "--store", path("none"), "--nats", nats.url()});
  EXPECT_EQ(ended.how, "exit 1");
  EXPECT_TRUE(contains(ended.err, "No such file or directory: cannot create "));
}

TEST(ForwardUse, ThatIsWrongIsExplained) {
  const std::pair<std::vector<std::string>, const char*> uses[] = {
      {{}, "--store is required"},
      {{"--store", "."}, "--nats is required"},
      {{"--store", ".", "--nats", "nats://u:p@h"},
       "--nats: may not have a user or a password, which all users could see: use --creds"},
      {{"--store", ".", "--nats", "a", "--timeout", "1"}, "--timeout needs --once"},
      {{"--store", ".", "--nats", "a", "--tls-cert", "f"},
       "--tls-cert and --tls-key need each other"},
      {{"--store", ".", "--nats", "a", "--host", "a/b"},
       "--host: must be a name of at most 100 bytes without a slash"},
      {{"--store", ".", "--nats", "a", "--replicas", "9"}, "--replicas: must be a number, 1 to 5"},
      {{"--stor", "."}, "unknown option --stor; did you mean --store?"}};
  for (const auto& [arguments, message] : uses) {
    std::vector<std::string> words = {ORVANE_FORWARD_PATH};
    words.insert(words.end(), arguments.begin(), arguments.end());
    const Ended ended = run(words);
    EXPECT_EQ(ended.how, "exit 2");
    EXPECT_EQ(ended.err, std::string("orvane-forward: ") + message +
                             " (orvane-forward --help shows the usage)\n");
  }
}

}  // namespace
}  // namespace orvane::test::forward_program
