// What a broker does for its confined process, and what it refuses to one that was taken over.

#include "store/broker.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "log.hpp"
#include "orvaned/store/running_broker.hpp"
#include "store/brokered_store.hpp"
#include "store/store.hpp"
#include "supervisor/child.hpp"
#include "support/temp_folder.hpp"
#include "support/throws.hpp"
#include "support/wire.hpp"

namespace orvane::test {
namespace {

namespace fs = std::filesystem;

using orvaned::BrokerArea;
using orvaned::BrokerCall;
using orvaned::BrokeredAccess;
using orvaned::BrokerRequest;
using orvaned::LocalDirectory;
using orvaned::StoreAccess;
using orvaned::Sync;
using tool::Fd;

using Names = std::vector<std::string>;

constexpr char kNotAllowed[] = "the broker refuses: this process may not do that to this file";
constexpr char kNotOutside[] =
    "the broker refuses: this process may not do that to the records outside a stream";

void write(const Fd& file, const std::string& text) {
  ASSERT_EQ(::write(file.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
}

class BrokerTest : public testing::Test {
 protected:
  using BrokerReply = orvaned::BrokerReply;

  BrokerReply call(BrokerRequest request) { return broker.client.call(std::move(request)); }

  // Throws what the broker answers.
  void callFile(BrokerCall what, const std::string& name, const std::string& other = "") {
    call({.call = what, .name = name, .other = other});
  }
  void callOutside(BrokerCall what, const std::string& name, std::uint64_t number = 0) {
    call({.call = what, .area = BrokerArea::outside, .number = number, .name = name, .other = {}});
  }

  TempFolder store;
  RunningBroker broker{{store.path(), {"orders"}, Sync::none}};
  BrokeredAccess access{broker.client, store.path()};
};

TEST_F(BrokerTest, MakesALockedFolderForAStreamAndOpensItsFiles) {
  const StoreAccess::NewStream stream = access.createStream();
  const std::string path = store.path() + "/orders-" + stream.head.stream;
  EXPECT_EQ(stream.folder->path(), path);
  EXPECT_EQ(namesIn(store.path()), Names{"orders-" + stream.head.stream});
  EXPECT_FALSE(LocalDirectory(path).lock());
  write(stream.folder->append("segment-000000.part"), "hello");
  write(stream.folder->append("segment-000000.part"), " world");
  stream.folder->truncate("segment-000000.part", 5);
  stream.folder->rename("segment-000000.part", "segment-000000");
  stream.folder->sync();
  EXPECT_EQ(readFile(path + "/segment-000000"), "hello");
  EXPECT_EQ(stream.folder->names(), Names{"segment-000000"});
}

TEST_F(BrokerTest, OpensAndRenamesCompressedFiles) {
  const StoreAccess::NewStream stream = access.createStream();
  write(stream.folder->append("segment-000000.zst.part"), "compressed");
  write(stream.folder->append("segment-000001.zst.part"), "not needed");
  stream.folder->truncate("segment-000000.zst.part", 8);
  stream.folder->remove("segment-000001.zst.part");
  stream.folder->rename("segment-000000.zst.part", "segment-000000.zst");
  stream.folder->read("segment-000000.zst");
  EXPECT_EQ(stream.folder->names(), Names{"segment-000000.zst"});
  EXPECT_EQ(readFile(stream.folder->path() + "/segment-000000.zst"), "compress");
}

TEST_F(BrokerTest, BeginsAStreamOfAFixedQueueWithItsNameAndTime) {
  const tool::UtcTime before = tool::utcNow();
  const tool::StreamHead head = access.createStream().head;
  ASSERT_TRUE(head.begun);
  EXPECT_LE(before, *head.begun);
  EXPECT_LE(*head.begun, tool::utcNow());
  EXPECT_EQ(head,
            (tool::StreamHead{.queue = "orders", .stream = head.stream, .begun = head.begun}));
  EXPECT_TRUE(head.stream.starts_with(tool::utcTextForNames(*head.begun) + "-"));
}

TEST_F(BrokerTest, BeginsAStreamOfALeaseWithWhatIsKnownOfIt) {
  const tool::Producer producer{1000, 100, 4712, "my backup"};
  RunningBroker leased({store.path(), {"orvane-1_2", "socket.1", producer, "app log"}, Sync::none});
  const StoreAccess::NewStream stream = BrokeredAccess(leased.client, store.path()).createStream();
  EXPECT_EQ(stream.head, (tool::StreamHead{.queue = "orvane-1_2",
                                           .stream = stream.head.stream,
                                           .producer = producer,
                                           .label = "app log",
                                           .begun = stream.head.begun}));
  EXPECT_EQ(namesIn(store.path()), Names{"socket.1-app_log-" + stream.head.stream});
  const auto found = orvaned::BrokeredUnfinishedStreams(leased.client).next();
  ASSERT_TRUE(found);
  EXPECT_EQ(found->head, stream.head);
}

TEST_F(BrokerTest, LetsGoOfAStreamWhenTheNextOneBegins) {
  StoreAccess::NewStream first = access.createStream();
  const StoreAccess::NewStream second = access.createStream();
  EXPECT_FALSE(LocalDirectory(second.folder->path()).lock());
  first.folder->append("manifest.part");
  EXPECT_EQ(namesIn(first.folder->path()), Names{});
  EXPECT_EQ(namesIn(second.folder->path()), Names{"manifest.part"});
  LocalDirectory folder(first.folder->path());
  first.folder.reset();
  EXPECT_TRUE(folder.lock());
}

TEST_F(BrokerTest, OpensNothingBeforeAStreamHasBegun) {
  EXPECT_TRUE(throwsErrno(1003, "the broker refuses: no stream is open",
                          [&] { callFile(BrokerCall::append, "manifest.part"); }));
}

TEST_F(BrokerTest, OffersTheStreamThatADeadProcessLeftOpenOnce) {
  const StoreAccess::NewStream stream = access.createStream();
  orvaned::BrokeredUnfinishedStreams left(broker.client);
  const auto found = left.next();
  ASSERT_TRUE(found);
  EXPECT_EQ(found->head, stream.head);
  EXPECT_EQ(found->folder->path(), stream.folder->path());
  EXPECT_FALSE(left.next());
}

TEST_F(BrokerTest, OffersNoStreamThatHasItsManifest) {
  const StoreAccess::NewStream stream = access.createStream();
  stream.folder->append("manifest.part");
  stream.folder->rename("manifest.part", "manifest");
  EXPECT_FALSE(orvaned::BrokeredUnfinishedStreams(broker.client).next());
}

TEST_F(BrokerTest, GivesFilesThatCanOnlyBeAppendedTo) {
  const StoreAccess::NewStream stream = access.createStream();
  const Fd file = stream.folder->append("manifest.part");
  EXPECT_EQ(fcntl(file.get(), F_GETFL) & (O_ACCMODE | O_APPEND), O_WRONLY | O_APPEND);
}

TEST_F(BrokerTest, RefusesEveryNameThatIsNoFileOfAStream) {
  const StoreAccess::NewStream stream = access.createStream();
  for (const char* name :
       {"", ".", "..", "manifest", "segment-000000", "segment-.part", "segment-1x.part",
        "segment-000000.part/", "../orders", "/etc/passwd", "segment-000000.partx", "other",
        "segment-123456789012345678901.part", "segment-000000.zst", "segment-.zst.part",
        "segment-000000.zst.zst.part", "segment-000000.part.zst", "manifest.zst.part"}) {
    for (const BrokerCall call : {BrokerCall::append, BrokerCall::truncate, BrokerCall::remove}) {
      EXPECT_TRUE(throwsErrno(1003, kNotAllowed, [&] { callFile(call, name); })) << name;
    }
  }
  for (const char* name : {"", "..", "../orders", "/etc/passwd", "segment-"}) {
    EXPECT_TRUE(throwsErrno(1003, kNotAllowed, [&] { callFile(BrokerCall::read, name); })) << name;
  }
}

TEST_F(BrokerTest, RenamesAFileToItsFinalNameOnly) {
  const StoreAccess::NewStream stream = access.createStream();
  stream.folder->append("segment-000000.part");
  stream.folder->append("other-records");
  for (const auto& names :
       {std::pair("segment-000000.part", "segment-000001"),
        std::pair("segment-000000.part", "../segment-000000"),
        std::pair("segment-000000.part", "segment-000000.zst"),
        std::pair("other-records", "manifest"), std::pair("segment-000000", "segment-000000.part"),
        std::pair("segment-000000.part", "manifest")}) {
    EXPECT_TRUE(throwsErrno(1003, kNotAllowed,
                            [&] { callFile(BrokerCall::rename, names.first, names.second); }));
  }
  EXPECT_EQ(stream.folder->names(), (Names{"other-records", "segment-000000.part"}));
}

TEST_F(BrokerTest, FinishesASegment) {
  const StoreAccess::NewStream stream = access.createStream();
  stream.folder->append("manifest.part");
  write(stream.folder->append("segment-000000.part"), "hello");
  stream.folder->startFinish("segment-000000", "its line");
  const auto result = stream.folder->finishResult(true);
  ASSERT_TRUE(result);
  EXPECT_TRUE(result->listed);
  EXPECT_EQ(result->error, "");
  EXPECT_EQ(stream.folder->names(), (Names{"manifest.part", "segment-000000"}));
  EXPECT_EQ(readFile(stream.folder->path() + "/manifest.part"), "its line\n");
}

TEST_F(BrokerTest, FinishesACompressedSegment) {
  const StoreAccess::NewStream stream = access.createStream();
  stream.folder->append("manifest.part");
  write(stream.folder->append("segment-000000.zst.part"), "compressed");
  stream.folder->startFinish("segment-000000.zst", "its line");
  EXPECT_EQ(stream.folder->finishResult(true).value().error, "");
  EXPECT_EQ(stream.folder->names(), (Names{"manifest.part", "segment-000000.zst"}));
}

TEST_F(BrokerTest, FinishesNothingButASegment) {
  const auto finish = [&](BrokerArea area, const std::string& name) {
    call({.call = BrokerCall::finishSegment, .area = area, .name = name, .other = "line"});
  };
  EXPECT_TRUE(throwsErrno(1003, "the broker refuses: no stream is open",
                          [&] { finish(BrokerArea::stream, "segment-000000"); }));
  const StoreAccess::NewStream stream = access.createStream();
  stream.folder->append("manifest.part");
  stream.folder->append("other-records");
  for (const char* name :
       {"", "..", "manifest", "other-records", "segment-000000.part", "segment-",
        "../segment-000000", "segment-123456789012345678901", "segment-.zst", "manifest.zst"}) {
    EXPECT_TRUE(throwsErrno(1003, kNotAllowed, [&] { finish(BrokerArea::stream, name); })) << name;
  }
  EXPECT_TRUE(throwsErrno(1003, kNotOutside,
                          [&] { finish(BrokerArea::outside, "orders-outside-records"); }));
  EXPECT_EQ(readFile(stream.folder->path() + "/manifest.part"), "");
}

TEST_F(BrokerTest, FollowsNoLinkAndOpensNothingButARegularFile) {
  const StoreAccess::NewStream stream = access.createStream();
  const std::string path = stream.folder->path();
  writeFile(store.path() + "/precious", "precious");
  fs::create_symlink(store.path() + "/precious", path + "/segment-000000.part");
  mkfifo((path + "/other-records").c_str(), 0600);
  EXPECT_TRUE(throwsErrno(
      1003, "Too many levels of symbolic links: cannot create " + path + "/segment-000000.part",
      [&] { stream.folder->append("segment-000000.part"); }));
  EXPECT_TRUE(throwsErrno(
      1003, "Too many levels of symbolic links: cannot write " + path + "/segment-000000.part",
      [&] { stream.folder->truncate("segment-000000.part", 0); }));
  EXPECT_TRUE(throwsErrno(1003, "Invalid argument: cannot read " + path + "/other-records",
                          [&] { stream.folder->read("other-records"); }));
  EXPECT_EQ(readFile(store.path() + "/precious"), "precious");
}

TEST_F(BrokerTest, LetsTheRecordsOutsideAStreamOnlyGrow) {
  const std::string name = "orders-outside-records";
  const std::string path = store.path() + "/" + name;
  writeFile(path, "earlier");
  const auto outside = access.outside();
  write(outside->append(name), "later");
  for (const std::uint64_t size : {std::uint64_t{0}, std::uint64_t{6}}) {
    EXPECT_TRUE(throwsErrno(1003, kNotOutside, [&] { outside->truncate(name, size); }));
  }
  EXPECT_TRUE(throwsErrno(1003, kNotOutside, [&] { outside->remove(name); }));
  outside->truncate(name, 9);
  EXPECT_EQ(readFile(path), "earlierla");
  outside->append(name);
  EXPECT_TRUE(throwsErrno(1003, kNotOutside, [&] { outside->truncate(name, 8); }));
}

TEST_F(BrokerTest, TakesBackAFileOfRecordsOutsideAStreamThatItMade) {
  const std::string name = "orders-outside-records";
  const auto outside = access.outside();
  write(outside->append(name), "half");
  outside->remove(name);
  EXPECT_EQ(namesIn(store.path()), Names{});
}

TEST_F(BrokerTest, OpensNoOtherFileOfTheStore) {
  writeFile(store.path() + "/theirs-outside-records", "theirs");
  for (const char* name : {"theirs-outside-records", "../x", "", "orders-outside-records/"}) {
    for (const BrokerCall call : {BrokerCall::append, BrokerCall::read, BrokerCall::truncate,
                                  BrokerCall::remove, BrokerCall::rename, BrokerCall::names}) {
      EXPECT_TRUE(throwsErrno(1003, kNotOutside, [&] { callOutside(call, name, 100); })) << name;
    }
  }
  EXPECT_TRUE(throwsErrno(1003, kNotOutside,
                          [&] { callOutside(BrokerCall::read, "orders-outside-records"); }));
}

TEST_F(BrokerTest, ListsMoreFilesThanFitIntoOneReply) {
  const StoreAccess::NewStream stream = access.createStream();
  for (int i = 0; i < 3000; ++i) {
    stream.folder->append("segment-" + std::to_string(100000 + i) + ".part");
  }
  const Names names = stream.folder->names();
  ASSERT_EQ(names.size(), 3000U);
  EXPECT_EQ(names.front(), "segment-100000.part");
  EXPECT_EQ(names.back(), "segment-102999.part");
}

TEST_F(BrokerTest, SaysWhyTheStoreCannotBeUsed) {
  fs::remove(store.path());
  EXPECT_THROW(broker.client.checkStore(), std::runtime_error);
  EXPECT_THROW(access.createStream(), Ox_ErrnoException);
  fs::create_directory(store.path());
  broker.client.checkStore();
}

std::vector<orvaned::LogLine> logged;

class BrokerLogTest : public testing::Test {
 protected:
  BrokerLogTest() {
    logged.clear();
    orvaned::setLogTarget([](const orvaned::LogLine& line) { logged.push_back(line); });
  }
  ~BrokerLogTest() override { orvaned::setLogTarget(nullptr); }
};

TEST_F(BrokerLogTest, MarksALineThatDoesNotNameItsQueue) {
  auto [ours, theirs] = orvaned::connectedSockets();
  const auto send = [&ours = ours](const char* line) {
    orvaned::sendRequest(ours, {.call = BrokerCall::log,
                                .number = std::uint64_t{2} << 32 | 1003U,
                                .name = {},
                                .other = line});
  };
  send("worker::open: queue orders: fine");
  send("supervisor::stop: the server ends");
  send("nothing");
  ours.reset();
  orvaned::Broker({"/none", {"orders"}, Sync::none}, std::move(theirs)).run();
  ASSERT_EQ(logged.size(), 3U);
  EXPECT_EQ(logged[0].kind, ox::Kind::warning);
  EXPECT_EQ(logged[0].code, 1003);
  EXPECT_EQ(logged[0].text, "worker::open: queue orders: fine");
  EXPECT_EQ(logged[1].text, "supervisor::stop: queue orders: the server ends");
  EXPECT_EQ(logged[2].text, "queue orders: nothing");
}

TEST_F(BrokerLogTest, LimitsTheLinesOfOneCause) {
  auto [ours, theirs] = orvaned::connectedSockets();
  for (int i = 0; i < 100; ++i) {
    orvaned::sendRequest(ours, {.call = BrokerCall::log,
                                .number = std::uint64_t{2} << 32,
                                .name = {},
                                .other = "worker::open: queue orders: again"});
  }
  ours.reset();
  orvaned::Broker({"/none", {"orders"}, Sync::none}, std::move(theirs)).run();
  EXPECT_GE(logged.size(), 20U);
  EXPECT_LT(logged.size(), 50U);
}

}  // namespace
}  // namespace orvane::test
