// A segment that its broker cannot bring onto the disk, or whose worker or broker dies meanwhile.

#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <memory>
#include <thread>

#include "orvaned/store/background_finish_fixture.hpp"
#include "store/recovery.hpp"
#include "support/limits.hpp"
#include "support/throws.hpp"

namespace orvane::test {
namespace {

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
  EXPECT_EQ(manifest(),
            plainHead() + kHello + ".part\n" + kWorld +
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
  EXPECT_TRUE(manifest().starts_with(plainHead() + kHello + "\nother-records=0 ")) << manifest();
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
    orvaned::BrokeredUnfinishedStreams streams(client);
    orvaned::recoverStreams(streams, Sync::segment, "its worker");
  });
  EXPECT_TRUE(isWaiting(recovered));
  gate.open();
  recovered.wait();
  EXPECT_EQ(files(), (Names{"manifest", "segment-000000", "segment-000001.part"}));
  EXPECT_NE(file("manifest").find(kHello + "\nunfinished file=segment-000001.part bytes=3 "),
            std::string::npos)
      << file("manifest");
  EXPECT_NE(manifest().find("\nend=cut-off\nreason=its worker died\n"), std::string::npos)
      << manifest();
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
    orvaned::Broker({store.path(), {"q"}, orvaned::Sync::segment}, std::move(*end)).run();
    return 0;
  });
  theirs.reset();
  orvaned::BrokerClient client(std::move(ours));
  auto created = orvaned::BrokeredAccess(client, store.path()).createStream();
  const std::string path = created.folder->path();
  auto stream = std::make_unique<orvaned::StreamFolder>(std::move(created.folder), created.head,
                                                        orvaned::Sync::segment);
  pvk_shm_message_t header;
  header.type = 1;
  header.len = 5;
  const Bytes data = bytesOf("hello");
  stream->storeSegmentData({header, data.data()});
  stream->endSegment(header);
  char byte = 0;
  ASSERT_EQ(recv(told.get(), &byte, 1, 0), 1);
  broker.signal(SIGKILL);
  EXPECT_TRUE(throwsErrno(1003, "the process that opens this worker's files has ended",
                          [&] { stream->end(StreamEnd::closed, "", 0); }));
  stream.reset();  // the worker has the folder's lock too
  while (!broker.ended()) {
    std::this_thread::yield();
  }
  orvaned::LocalUnfinishedStreams streams(store.path());
  orvaned::recoverStreams(streams, orvaned::Sync::segment, "the server");
  EXPECT_EQ(namesIn(path), (std::vector<std::string>{"manifest", "segment-000000.part"}));
  const std::string manifest = readFile(path + "/manifest");
  EXPECT_NE(manifest.find("\nunfinished file=segment-000000.part bytes=5 crc32=3610a686\n"),
            std::string::npos)
      << manifest;
}

}  // namespace
}  // namespace orvane::test
