// Which folders of a store are streams that a dead server left.

#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <future>
#include <map>
#include <optional>
#include <thread>

#include "recovery_fixture.hpp"
#include "store/stream_directory.hpp"
#include "support/limits.hpp"
#include "support/waiting_thread.hpp"

namespace orvane::test {
namespace {

using orvaned::LocalUnfinishedStreams;

// The streams' folders, by their names.
class UnfinishedStreams : public RecoveryTest {
 protected:
  UnfinishedStreams() { std::filesystem::remove(folder); }

  // Makes a folder, as a server that died early left it, or with a manifest's beginning.
  void make(const std::string& name, const std::string& manifestPart = "") const {
    std::filesystem::create_directory(path(name));
    if (!manifestPart.empty()) {
      writeFile(path(name) + "/manifest.part", manifestPart);
    }
  }
  std::string path(const std::string& name) const { return store.path() + "/" + name; }

  Names found() const { return namesOf(LocalUnfinishedStreams(store.path())); }
  Names found(const std::string& queue) const {
    return namesOf(LocalUnfinishedStreams(store.path(), queue, queue));
  }
  Names namesOf(LocalUnfinishedStreams streams) const {
    Names names;
    while (const auto stream = streams.next()) {
      names.push_back(stream->folder->path().substr(store.path().size() + 1));
    }
    std::sort(names.begin(), names.end());
    return names;
  }
};

TEST_F(UnfinishedStreams, AreThoseOfEveryServerAndQueue) {
  const Names names = {"1-20261121T023224-4711_0", "a-b.c_d-20261121T023224-4711_0",
                       "orders-app.log-20261121T023224-4711_123",
                       "orvane-20261121T023224-4711_89abcdef-20261121T023224-4712_0"};
  for (const std::string& name : names) {
    make(name);
  }
  EXPECT_EQ(found(), names);
}

TEST_F(UnfinishedStreams, AreNothingThatHasAnotherName) {
  for (const char* name :
       {"q-20261121T023224-4711_0.old", "q-notes", "q-20261121T023224-4711_",
        "q-20261121T023224-_0", "20261121T023224-4711_0", "-20261121T023224-4711_0",
        "q_20261121T023224-4711_0", "q-0261121T023224-4711_0", "q-120261121T023224-4711_0",
        "q-20261121T23224-4711_0", "q-20261121T1023224-4711_0", "q-20261121t023224-4711_0",
        "q-20261121T023224_4711_0", "q-20261121T023224-4711-0", ".q-20261121T023224-4711_0",
        "q-20261121T023224-4711_0.new"}) {
    make(name, kFirst);
  }
  writeFile(folder, "a file of that name");
  writeFile(path("q-outside-records"), "records");
  EXPECT_EQ(found(), Names{});
}

TEST_F(UnfinishedStreams, AreNoneThatHaveTheirManifest) {
  make("q-20261121T023224-4711_0");
  writeFile(path("q-20261121T023224-4711_0/manifest"), "");
  EXPECT_EQ(found(), Names{});
}

TEST_F(UnfinishedStreams, AreNoneThatAreLinkedFromTheStore) {
  const TempFolder elsewhere;
  std::filesystem::create_directory_symlink(elsewhere.path(), folder);
  recover();
  EXPECT_EQ(namesIn(elsewhere.path()), Names{});
  EXPECT_EQ(sink.take(), std::vector<Line>{});
}

TEST_F(UnfinishedStreams, AreRemovedIfTheyGotNoName) {
  for (const char* name : {".q-20261121T023224-4711_0.new", ".other-20261121T023224-4711_3.new",
                           ".q-20261121T023224-4711_1", ".q.new", "q-20261121T023224-4711_2.new"}) {
    make(name);
  }
  recover();
  EXPECT_EQ(namesIn(store.path()),
            (Names{".q-20261121T023224-4711_1", ".q.new", "q-20261121T023224-4711_2.new"}));
  EXPECT_EQ(sink.take(), std::vector<Line>{});
}

TEST_F(UnfinishedStreams, AreNoneWhoseRemovalWasBegunAndWhichAreRemoved) {
  const Names kept = {".q-20261121T023224-4711_1.removed.old", ".q.removed",
                      "q-20261121T023224-4711_2.removed"};
  for (const std::string& name : kept) {
    make(name, kFirst);
  }
  make(".q-20261121T023224-4711_0.removed");
  writeFile(path(".q-20261121T023224-4711_0.removed/manifest"), "format=1\n");
  writeFile(path(".q-20261121T023224-4711_0.removed/segment-000000"), "hello");
  const TempFolder elsewhere;
  std::filesystem::create_directory_symlink(elsewhere.path(),
                                            path(".q-20261121T023224-4711_3.removed"));
  EXPECT_EQ(found(), Names{});
  EXPECT_EQ(namesIn(store.path()),
            (Names{".q-20261121T023224-4711_1.removed.old", ".q-20261121T023224-4711_3.removed",
                   ".q.removed", "q-20261121T023224-4711_2.removed"}));
  EXPECT_EQ(sink.take(), std::vector<Line>{});
}

TEST_F(UnfinishedStreams, OfOneQueueAreThoseWhoseManifestSaysSo) {
  const std::string head = "format=2\nqueue=orders\nstream=20261121T023224-4711_";
  make("name-20261121T023224-4711_0", head + "0\n");
  make("orders-20261121T023224-4711_1", "format=2\nqueue=other\n");
  make("orders-20261121T023224-4711_2", "format=1\nqueue=orders\n");
  EXPECT_EQ(found("orders"),
            (Names{"name-20261121T023224-4711_0", "orders-20261121T023224-4711_2"}));
}

// A server may die before it has written the queue, and a manifest may be damaged.
TEST_F(UnfinishedStreams, OfOneQueueAreThoseOfThatNameWhoseManifestSaysNothing) {
  make("orders-20261121T023224-4711_0");
  make("orders-20261121T023224-4711_1", "format=2\nque");
  make("orders-20261121T023224-4711_2", "format=3\nqueue=other\n");
  make("other-20261121T023224-4711_3");
  EXPECT_EQ(found("orders"),
            (Names{"orders-20261121T023224-4711_0", "orders-20261121T023224-4711_1",
                   "orders-20261121T023224-4711_2"}));
}

// The ids of a lease's streams begin with the socket's name, and not with that of the lease's
// queue.
TEST_F(UnfinishedStreams, OfOneLeaseAreThoseOfItsSocketWhoseManifestSaysNothing) {
  make("backups-20261121T023224-4711_0");
  make("backups-app.log-20261121T023224-4711_1", "format=2\nque");
  make("backups-20261121T023224-4711_2", "format=2\nqueue=another lease\n");
  make("backups2-20261121T023224-4711_3");
  LocalUnfinishedStreams streams(store.path(), "lease", "backups");

  std::map<std::string, std::string> queues;
  while (const auto stream = streams.next()) {
    queues[stream->head.stream] = stream->head.queue;
  }
  EXPECT_EQ(queues, (std::map<std::string, std::string>{{"20261121T023224-4711_0", "lease"},
                                                        {"20261121T023224-4711_1", "lease"}}));
}

// Its own server finishes what its worker leaves, and knows why the worker ended.
TEST_F(UnfinishedStreams, AreNotThoseOfAQueueThatIsServed) {
  const auto isServed = [](const std::string& queue) { return queue == "orders"; };
  make("backups-20261121T023224-4711_0", "format=2\nqueue=orders\n");
  make("backups-20261121T023224-4711_1", "format=2\nqueue=other\n");
  EXPECT_EQ(namesOf(LocalUnfinishedStreams(store.path(), isServed)),
            Names{"backups-20261121T023224-4711_1"});
}

// Until its manifest has begun, nothing but the lock tells that a stream is used.
TEST_F(UnfinishedStreams, AreNotThoseThatTurnOutToBeServedWhileTheyAreLocked) {
  make("q-20261121T023224-4711_0");
  orvaned::LocalDirectory used(folder);
  ASSERT_TRUE(used.lock());
  LocalUnfinishedStreams streams(store.path(),
                                 [](const std::string& queue) { return queue == "orders"; });
  writeFile(folder + "/manifest.part", "format=2\nqueue=orders\n");

  EXPECT_FALSE(streams.next());
  EXPECT_EQ(streams.queuesInUse(), Names{});
}

TEST_F(UnfinishedStreams, ComeWithWhatTheirNameTells) {
  make("orders-x-20261121T023224-4711_0");
  const auto stream = LocalUnfinishedStreams(store.path()).next();
  ASSERT_TRUE(stream);
  EXPECT_EQ(stream->head,
            (tool::StreamHead{.queue = "orders-x", .stream = "20261121T023224-4711_0"}));
}

TEST_F(UnfinishedStreams, AreLockedWhileTheyAreFinished) {
  make("q-20261121T023224-4711_0");
  LocalUnfinishedStreams streams(store.path());
  const auto stream = streams.next();
  ASSERT_TRUE(stream);
  EXPECT_FALSE(orvaned::LocalDirectory(folder).lock());
}

TEST_F(UnfinishedStreams, AreLeftAloneIfTheyStayLocked) {
  make("q-20261121T023224-4711_0");
  orvaned::LocalDirectory held(folder);
  ASSERT_TRUE(held.lock());
  const Stopwatch watch;
  recover();
  EXPECT_GE(watch.seconds(), 1.99) << "its holder may be about to die";
  EXPECT_EQ(files(), Names{});
  EXPECT_EQ(sink.take(), std::vector<Line>{});
}

TEST_F(UnfinishedStreams, AreFinishedIfTheyAreUnlockedMeanwhile) {
  make("q-20261121T023224-4711_0");
  std::optional<orvaned::LocalDirectory> held(folder);
  ASSERT_TRUE(held->lock());
  std::thread recovery([this] { recover(); });
  held.reset();
  recovery.join();
  EXPECT_EQ(files(), Names{"manifest"});
}

TEST_F(UnfinishedStreams, InUseComeLastAndOnlyIfTheyAreLeftInTime) {
  make("used-20261121T023224-4711_0", "format=2\nqueue=orders\n");
  make("left-20261121T023224-4711_1");
  make("used-20261121T023224-4711_2");
  auto used = std::make_unique<orvaned::LocalDirectory>(path("used-20261121T023224-4711_0"));
  auto dying = std::make_unique<orvaned::LocalDirectory>(path("used-20261121T023224-4711_2"));
  ASSERT_TRUE(used->lock());
  ASSERT_TRUE(dying->lock());
  LocalUnfinishedStreams streams(store.path());
  const auto left = streams.next();
  ASSERT_TRUE(left);
  EXPECT_EQ(left->head.queue, "left");
  dying.reset();
  const auto freed = streams.next();
  ASSERT_TRUE(freed);
  EXPECT_EQ(freed->head.queue, "used");
  EXPECT_EQ(freed->head.stream, "20261121T023224-4711_2");
  EXPECT_FALSE(streams.next());
  EXPECT_EQ(streams.queuesInUse(), Names{"orders"});
}

TEST_F(UnfinishedStreams, InUseAreStillInUseWhenTheyHaveBeenMoved) {
  const std::string name = "used-20261121T023224-4711_0";
  make(name, "format=2\nqueue=orders\n");
  orvaned::LocalDirectory used(path(name));
  ASSERT_TRUE(used.lock());
  LocalUnfinishedStreams streams(store.path());
  const tool::Fd events(inotify_init1(IN_CLOEXEC));
  ASSERT_GE(inotify_add_watch(events.get(), path(name).c_str(), IN_CLOSE_NOWRITE), 0);
  auto next = std::async(std::launch::async, [&] { return streams.next(); });
  alignas(inotify_event) char event[sizeof(inotify_event) + NAME_MAX + 1];  // of one event
  std::string closed;  // the folder itself is opened, too
  while (closed != "manifest.part") {
    ASSERT_GT(read(events.get(), event, sizeof event), 0);
    const auto* const first = reinterpret_cast<const inotify_event*>(event);
    closed = first->len > 0 ? first->name : "";
  }
  std::filesystem::rename(path(name), path("moved"));
  EXPECT_FALSE(next.get());
  EXPECT_EQ(streams.queuesInUse(), Names{"orders"});
}

TEST_F(UnfinishedStreams, CanBeMovedAwayWithTheStore) {
  const std::string folder = path("store");
  std::filesystem::create_directory(folder);
  const LocalUnfinishedStreams streams(folder);
  EXPECT_FALSE(streams.isStoreAway());
  std::filesystem::rename(folder, path("away"));
  EXPECT_TRUE(streams.isStoreAway());
  EXPECT_FALSE(LocalUnfinishedStreams("/dev/null").isStoreAway());
}

TEST_F(UnfinishedStreams, ThatCannotBeOpenedAreLeftToTheUserWhoseTheyAre) {
  make("q-20261121T023224-4711_0");
  chmod(path("q-20261121T023224-4711_0").c_str(), 0);
  chmod(store.path().c_str(), 0755);
  EXPECT_EQ(found(), Names{"q-20261121T023224-4711_0"});
  if (geteuid() == 0) {
    const WithoutPrivileges user;
    EXPECT_EQ(found(), Names{});
  }
  chmod(path("q-20261121T023224-4711_0").c_str(), 0700);
}

TEST_F(UnfinishedStreams, AreNotLookedForInTheStoreThatKeepsNothing) {
  EXPECT_FALSE(LocalUnfinishedStreams("/dev/null").next());
}

}  // namespace
}  // namespace orvane::test
