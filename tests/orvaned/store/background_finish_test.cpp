// A stream's folder goes on while its broker brings the segment before onto the disk.

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <future>
#include <memory>
#include <thread>

#include "orvaned/store/file_calls.hpp"
#include "orvaned/store/running_broker.hpp"
#include "store/recovery.hpp"
#include "store/stream_folder.hpp"
#include "support/limits.hpp"
#include "support/temp_folder.hpp"
#include "support/throws.hpp"
#include "support/wire.hpp"

namespace orvane::test {
namespace {

using orvaned::BrokeredAccess;
using orvaned::BrokeredUnfinishedStreams;
using orvaned::StreamFolder;
using orvaned::Sync;

using Names = std::vector<std::string>;

constexpr char kFirst[] = "segment-000000.part";

// A sync in another thread arrives here, and waits until it may go on.
class Gate {
 public:
  ~Gate() { open(); }

  void pass() {
    arrived.set_value();
    opened.wait();
  }
  void awaitArrival() { arrived.get_future().wait(); }
  void open() {
    if (!std::exchange(isOpen, true)) {
      opening.set_value();
    }
  }

 private:
  bool isOpen = false;
  std::promise<void> arrived;
  std::promise<void> opening;
  std::shared_future<void> opened = opening.get_future().share();
};

class StreamFolderInBackground : public testing::Test {
 protected:
  // From now on the sync of the first segment waits for the gate.
  void closeGate() {
    fileCalls().duringSync = [this](const std::string& path) {
      if (path.ends_with(kFirst)) {
        gate.pass();
      }
      return 0;
    };
  }
  static void failToSync(const std::string& name) {
    fileCalls().duringSync = [name](const std::string& path) {
      return path.ends_with(name) ? EIO : 0;
    };
  }

  StreamFolder makeStream(Sync sync = Sync::segment) {
    auto stream = BrokeredAccess(broker.client, store.path()).createStream();
    path = stream.folder->path();
    id = stream.id;
    return {std::move(stream.folder), "orders", id, sync};
  }
  static void storeData(StreamFolder& stream, std::uint64_t segment, const std::string& text) {
    const Bytes data = bytesOf(text);
    pvk_shm_message_t header;
    header.type = 1;
    header.segmentNo = segment;
    header.len = static_cast<std::uint32_t>(data.size());
    stream.storeSegmentData({header, data.data()});
  }
  static void endSegment(StreamFolder& stream, std::uint64_t segment) {
    pvk_shm_message_t header;
    header.type = 2;
    header.segmentNo = segment;
    stream.endSegment(header);
  }

  // Every reply has come that the broker sends without a further request.
  void awaitBroker() { broker.client.checkStore(); }

  Names files() const { return namesIn(path); }
  std::string file(const std::string& name) const { return readFile(path + "/" + name); }

  static bool isWaiting(const std::future<void>& call) {
    return call.wait_for(std::chrono::milliseconds(100)) == std::future_status::timeout;
  }

  static inline const std::string kHello =
      "segment number=0 records=1 bytes=5 algorithm=0 parameters=0,0,0 crc32=3610a686 "
      "file=segment-000000";
  static inline const std::string kWorld =
      "segment number=1 records=1 bytes=5 algorithm=0 parameters=0,0,0 crc32=3a771143 "
      "file=segment-000001";
  std::string head() const { return "format=1\nqueue=orders\nstream=" + id + "\n"; }
  std::string receipt(const std::string& rest) const { return "receipt stream=" + id + rest; }

  TempFolder store;
  std::string path;
  std::string id;
  RunningBroker broker{{store.path(), "orders", Sync::segment}};
  Gate gate;
};

TEST_F(StreamFolderInBackground, StoresTheNextSegmentWhileTheOneBeforeIsSynced) {
  closeGate();
  StreamFolder stream = makeStream();
  storeData(stream, 0, "hello");
  endSegment(stream, 0);
  gate.awaitArrival();
  storeData(stream, 1, "world");
  stream.flush();
  EXPECT_EQ(files(), (Names{"manifest.part", kFirst, "segment-000001.part"}));
  EXPECT_EQ(file("segment-000001.part"), "world");
  EXPECT_EQ(file("manifest.part"), head());
  gate.open();
  endSegment(stream, 1);
  awaitBroker();
  EXPECT_EQ(files(), (Names{"manifest.part", "segment-000000", "segment-000001"}));
  EXPECT_EQ(file("manifest.part"), head() + kHello + "\n" + kWorld + "\n");
  stream.end(StreamEnd::closed, "", 0);
  EXPECT_EQ(files(), (Names{"manifest", "segment-000000", "segment-000001"}));
  EXPECT_EQ(file("manifest"),
            head() + kHello + "\n" + kWorld +
                "\nother-records=0 bytes=0 crc32=00000000\nskipped=0\n" +
                receipt(" records=2 bytes=10 segments=2 "
                        "end=closed\nrecords=2\nbytes=10\nend=closed\nreason=\n"));
  EXPECT_EQ(textOf(stream.receipt()), receipt(" records=2 bytes=10 segments=2 end=closed"));
}

TEST_F(StreamFolderInBackground, HasOneSegmentInTheBackground) {
  closeGate();
  StreamFolder stream = makeStream();
  storeData(stream, 0, "hello");
  endSegment(stream, 0);
  storeData(stream, 1, "world");
  const auto ended = std::async(std::launch::async, [&] { endSegment(stream, 1); });
  EXPECT_TRUE(isWaiting(ended));
  gate.open();
  ended.wait();
  EXPECT_TRUE(file("manifest.part").starts_with(head() + kHello + "\n"));
}

TEST_F(StreamFolderInBackground, EndsTheStreamWhenAllIsOnTheDisk) {
  closeGate();
  StreamFolder stream = makeStream();
  storeData(stream, 0, "hello");
  endSegment(stream, 0);
  const auto ended = std::async(std::launch::async, [&] { stream.end(StreamEnd::cutOff, "", 0); });
  EXPECT_TRUE(isWaiting(ended));
  EXPECT_EQ(files(), (Names{"manifest.part", kFirst}));
  gate.open();
  ended.wait();
  EXPECT_EQ(files(), (Names{"manifest", "segment-000000"}));
}

TEST_F(StreamFolderInBackground, FailsAtTheNextFlushWithTheReason) {
  failToSync(kFirst);
  StreamFolder stream = makeStream();
  storeData(stream, 0, "hello");
  endSegment(stream, 0);
  awaitBroker();
  EXPECT_TRUE(throwsErrno(1003, "Input/output error: cannot sync " + path + "/" + kFirst,
                          [&] { stream.flush(); }));
  stream.flush();
}

TEST_F(StreamFolderInBackground, ListsWhatIsNotSyncedAsUnfinishedInABrokenStream) {
  failToSync(kFirst);
  StreamFolder stream = makeStream();
  storeData(stream, 0, "hello");
  endSegment(stream, 0);
  storeData(stream, 1, "world");
  EXPECT_TRUE(throwsErrno(1003, "Input/output error: cannot sync " + path + "/" + kFirst,
                          [&] { endSegment(stream, 1); }));
  stream.end(StreamEnd::broken, "the disk failed", 0);
  EXPECT_EQ(files(), (Names{"manifest", kFirst, "segment-000001.part"}));
  EXPECT_EQ(file("manifest"),
            head() + kHello + ".part\n" + kWorld +
                ".part\nother-records=0 bytes=0 crc32=00000000\nskipped=0\n" +
                receipt(" records=2 bytes=10 segments=2 "
                        "end=broken\nrecords=2\nbytes=10\nend=broken\nreason=the disk failed\n"));
}

TEST_F(StreamFolderInBackground, ListsOnceWhatCannotGetItsFinalName) {
  failToSync("manifest.part");
  StreamFolder stream = makeStream();
  storeData(stream, 0, "hello");
  endSegment(stream, 0);
  awaitBroker();
  fileCalls().duringSync = nullptr;
  for (const StreamEnd how : {StreamEnd::closed, StreamEnd::broken}) {
    EXPECT_EQ(throwsErrno(1003, "Input/output error: cannot sync " + path + "/manifest.part",
                          [&] { stream.end(how, "", 0); }),
              how == StreamEnd::closed);
  }
  EXPECT_EQ(files(), (Names{"manifest", kFirst}));
  EXPECT_TRUE(file("manifest").starts_with(head() + kHello + "\nother-records=0 "));
  EXPECT_EQ(textOf(stream.receipt()), receipt(" records=1 bytes=5 segments=1 end=broken"));
}

TEST_F(StreamFolderInBackground, ListsASegmentWithoutDataWhoseEndBreaksTheStream) {
  failToSync(kFirst);
  StreamFolder stream = makeStream();
  storeData(stream, 0, "hello");
  endSegment(stream, 0);
  EXPECT_THROW(endSegment(stream, 1), Ox_ErrnoException);
  stream.end(StreamEnd::broken, "the disk failed", 0);
  EXPECT_NE(file("manifest").find("\nsegment number=1 records=0 bytes=0 "), std::string::npos)
      << file("manifest");
}

TEST_F(StreamFolderInBackground, SyncsItselfWhenEachBatchIsSynced) {
  std::vector<std::thread::id> threads;
  fileCalls().duringSync = [&](const std::string&) {
    threads.push_back(std::this_thread::get_id());
    return 0;
  };
  StreamFolder stream = makeStream(Sync::always);
  storeData(stream, 0, "hello");
  endSegment(stream, 0);
  EXPECT_EQ(threads, std::vector(2, std::this_thread::get_id()));
  EXPECT_EQ(files(), (Names{"manifest.part", "segment-000000"}));
}

TEST_F(StreamFolderInBackground, SyncsNothingWhenThatIsLeftToTheSystem) {
  fileCalls().duringSync = [](const std::string&) { return EIO; };
  StreamFolder stream = makeStream(Sync::none);
  storeData(stream, 0, "hello");
  endSegment(stream, 0);
  EXPECT_EQ(files(), (Names{"manifest.part", "segment-000000"}));
  stream.end(StreamEnd::closed, "", 0);
}

TEST_F(StreamFolderInBackground, TakesHalfALineAfterAFinishedSegmentBack) {
  StreamFolder stream = makeStream();
  storeData(stream, 0, "hello");
  endSegment(stream, 0);
  awaitBroker();
  stream.flush();
  endSegment(stream, 1);
  const std::string listed = file("manifest.part");
  EXPECT_TRUE(listed.starts_with(head() + kHello + "\nsegment number=1 records=0 ")) << listed;
  {
    const FileSizeLimit full(listed.size() + 10);
    EXPECT_THROW(stream.end(StreamEnd::closed, "", 0), Ox_ErrnoException);
  }
  EXPECT_EQ(file("manifest.part"), listed);
}

TEST_F(StreamFolderInBackground, TakesNoResultOfAStreamBefore) {
  failToSync(kFirst);
  {
    StreamFolder left = makeStream();
    storeData(left, 0, "hello");
    endSegment(left, 0);
  }
  StreamFolder stream = makeStream();
  fileCalls().duringSync = nullptr;
  storeData(stream, 0, "hello");
  endSegment(stream, 0);
  stream.end(StreamEnd::closed, "", 0);
  EXPECT_EQ(files(), (Names{"manifest", "segment-000000"}));
}

TEST_F(StreamFolderInBackground, WaitsForTheDiskWhenThereIsNoRoomForAThread) {
  pthread_attr_t attributes;
  pthread_getattr_default_np(&attributes);
  pthread_attr_t tooMuch = attributes;
  pthread_attr_setstacksize(&tooMuch, std::size_t{1} << 60);
  StreamFolder stream = makeStream();
  storeData(stream, 0, "hello");
  pthread_setattr_default_np(&tooMuch);
  endSegment(stream, 0);
  awaitBroker();
  pthread_setattr_default_np(&attributes);
  EXPECT_EQ(files(), (Names{"manifest.part", "segment-000000"}));
  stream.end(StreamEnd::closed, "", 0);
}

// A worker that dies leaves a segment that its broker still finishes.
TEST_F(StreamFolderInBackground, IsRecoveredAfterTheSegmentIsFinished) {
  closeGate();
  StreamFolder stream = makeStream();
  storeData(stream, 0, "hello");
  endSegment(stream, 0);
  storeData(stream, 1, "wor");
  stream.flush();
  const auto recovered = std::async(std::launch::async, [&] {
    orvaned::BrokerClient client(broker.otherEnd());
    BrokeredUnfinishedStreams streams(client);
    orvaned::recoverStreams(streams, Sync::segment, "its worker");
  });
  EXPECT_TRUE(isWaiting(recovered));
  gate.open();
  recovered.wait();
  EXPECT_EQ(files(), (Names{"manifest", "segment-000000", "segment-000001.part"}));
  EXPECT_NE(file("manifest").find(kHello + "\nunfinished file=segment-000001.part bytes=3 "),
            std::string::npos)
      << file("manifest");
  EXPECT_NE(file("manifest").find("\nend=cut-off\nreason=its worker died\n"), std::string::npos);
}

// With the whole server: nobody finishes the segment.
TEST(StreamFolderOfADeadBroker, ListsAsUnfinishedWhatWasNotSynced) {
  const TempFolder store;
  auto [ours, theirs] = orvaned::connectedSockets();
  auto [told, telling] = orvaned::connectedSockets();
  orvaned::Child broker([&, end = &theirs, signal = telling.get()](orvaned::Heartbeat&) {
    fileCalls().duringSync = [signal](const std::string&) {
      send(signal, "", 1, 0);
      for (;;) {
        pause();
      }
      return 0;
    };
    orvaned::Broker({store.path(), "q", Sync::segment}, std::move(*end)).run();
    return 0;
  });
  theirs.reset();
  orvaned::BrokerClient client(std::move(ours));
  auto created = BrokeredAccess(client, store.path()).createStream();
  const std::string path = created.folder->path();
  StreamFolder stream(std::move(created.folder), "q", created.id, Sync::segment);
  pvk_shm_message_t header;
  header.type = 1;
  header.len = 5;
  const Bytes data = bytesOf("hello");
  stream.storeSegmentData({header, data.data()});
  stream.endSegment(header);
  char byte = 0;
  ASSERT_EQ(recv(told.get(), &byte, 1, 0), 1);
  broker.signal(SIGKILL);
  EXPECT_TRUE(throwsErrno(1003, "the process that opens this worker's files has ended",
                          [&] { stream.end(StreamEnd::closed, "", 0); }));
  while (!broker.ended()) {
    std::this_thread::yield();
  }
  orvaned::LocalUnfinishedStreams streams(store.path(), [](const std::string&) { return true; });
  orvaned::recoverStreams(streams, Sync::segment, "the server");
  EXPECT_EQ(namesIn(path), (Names{"manifest", kFirst}));
  const std::string manifest = readFile(path + "/manifest");
  EXPECT_NE(manifest.find("\nunfinished file=segment-000000.part bytes=5 crc32=3610a686\n"),
            std::string::npos)
      << manifest;
}

}  // namespace
}  // namespace orvane::test
