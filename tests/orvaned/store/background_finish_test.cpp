// A stream's folder goes on while its broker brings the segment before onto the disk.

#include <pthread.h>

#include <thread>

#include "orvaned/store/background_finish_fixture.hpp"

namespace orvane::test {
namespace {

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
  EXPECT_EQ(manifest(), plainHead() + kHello + "\n" + kWorld +
                            "\nother-records=0 bytes=0 crc32=00000000\nskipped=0\n" +
                            receipt(" records=2 bytes=10 segments=2 "
                                    "end=closed\nrecords=2\nbytes=10\nend=closed\nreason=\n"));
  EXPECT_EQ(textOf(stream.receipt()), receipt(" records=2 bytes=10 segments=2 end=closed"));
}

TEST_F(StreamFolderInBackground, ListsASegmentWithoutDataOnce) {
  StreamFolder stream = makeStream();
  storeData(stream, 0, "hello");
  endSegment(stream, 0);
  endSegment(stream, 1);
  awaitBroker();
  stream.end(StreamEnd::closed, "", 0);
  EXPECT_EQ(files(), (Names{"manifest", "segment-000000"}));
  EXPECT_EQ(manifest(),
            plainHead() + kHello +
                "\nsegment number=1 records=0 bytes=0 algorithm=0 parameters=0,0,0 "
                "crc32=00000000 file=-\nother-records=0 bytes=0 crc32=00000000\nskipped=0\n" +
                receipt(" records=1 bytes=5 segments=1 "
                        "end=closed\nrecords=1\nbytes=5\nend=closed\nreason=\n"));
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
  pthread_attr_t usual;
  pthread_attr_t tooMuch;
  ASSERT_EQ(pthread_getattr_default_np(&usual), 0);
  ASSERT_EQ(pthread_getattr_default_np(&tooMuch), 0);
  ASSERT_EQ(pthread_attr_setstacksize(&tooMuch, std::size_t{1} << 60), 0);
  StreamFolder stream = makeStream();
  storeData(stream, 0, "hello");
  ASSERT_EQ(pthread_setattr_default_np(&tooMuch), 0);
  endSegment(stream, 0);
  awaitBroker();
  pthread_setattr_default_np(&usual);
  pthread_attr_destroy(&usual);
  pthread_attr_destroy(&tooMuch);
  EXPECT_EQ(files(), (Names{"manifest.part", "segment-000000"}));
  stream.end(StreamEnd::closed, "", 0);
}

}  // namespace
}  // namespace orvane::test
