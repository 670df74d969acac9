#include <atomic>
#include <chrono>
#include <functional>
#include <thread>

#include "stream_server.hpp"

namespace orvane::test {
namespace {

template <typename Memory>
class StreamWrite : public testing::Test {
 protected:
  StreamServer<Memory> server;
};
TYPED_TEST_SUITE(StreamWrite, Memories, MemoryName);

const Record kOpened{.type = 0, .seqNo = 0};

TYPED_TEST(StreamWrite, OpensTheStreamAtOnce) {
  const Stream stream(this->server.options());
  EXPECT_EQ(stream.transport(), TypeParam::kTransport);
  EXPECT_EQ(this->server.receive(), std::vector<Record>{kOpened});
}

TYPED_TEST(StreamWrite, AsksForALeaseWithItsLabel) {
  StreamOptions options = this->server.options();
  options.label = "app log";
  const Stream stream(options);
  EXPECT_TRUE(this->server.request().ends_with(" label=app%20log")) << this->server.request();
}

TYPED_TEST(StreamWrite, SendsTheRecordsOfAWriter) {
  Stream stream(this->server.options());
  stream.write("hello");
  stream.write("world", 5);
  stream.endSegment();
  stream.write("!");
  EXPECT_EQ(stream.tryFinish(), std::nullopt);
  EXPECT_EQ(this->server.receive(),
            (std::vector<Record>{
                kOpened,
                {.type = 1, .seqNo = 2, .segmentDone = 0, .data = bytesOf("hello")},
                {.type = 1, .seqNo = 3, .segmentDone = 0, .data = bytesOf("world")},
                {.type = 2, .seqNo = 4, .segmentDone = 0},
                {.type = 1, .seqNo = 5, .segmentNo = 1, .segmentDone = 0, .data = bytesOf("!")},
                {.type = 3, .seqNo = 6, .segmentNo = 1, .segmentDone = 0}}));
}

TYPED_TEST(StreamWrite, CutsDataIntoRecordsOfTheLargestSize) {
  Stream stream(this->server.options());
  const std::string data = content(300000);
  stream.write(data);
  stream.flush();
  const std::vector<Record> records = this->server.receive();
  ASSERT_EQ(records.size(), 4U);
  EXPECT_EQ(records[1].data.size(), 131072U);
  EXPECT_EQ(records[2].data.size(), 131072U);
  EXPECT_EQ(records[3].data.size(), 37856U);
  EXPECT_TRUE(dataOf(records) == data);
}

TYPED_TEST(StreamWrite, OfSeveralBuffersMakesARecordOfEach) {
  Stream stream(this->server.options());
  const std::vector<Stream::Buffer> buffers = {{"one", 3}, {nullptr, 0}, {"three", 5}};
  stream.writeMany(buffers.data(), buffers.size());
  stream.flush();
  const std::vector<Record> records = this->server.receive();
  ASSERT_EQ(records.size(), 3U);
  EXPECT_EQ(records[1].data, bytesOf("one"));
  EXPECT_EQ(records[2].data, bytesOf("three"));
}

TYPED_TEST(StreamWrite, TakesSpansOfBytes) {
  Stream stream(this->server.options());
  const std::vector<unsigned char> some = {'a', 'b'};
  const std::vector<std::byte> more = {std::byte{'c'}};
  stream.write(some);
  stream.write(more);
  stream.flush();
  EXPECT_EQ(dataOf(this->server.receive()), "abc");
}

TYPED_TEST(StreamWrite, OfNothingSendsNothing) {
  Stream stream(this->server.options());
  stream.write("");
  stream.write(nullptr, 0);
  stream.endSegment();
  stream.flush();
  EXPECT_EQ(this->server.receive(), std::vector<Record>{kOpened});
}

TYPED_TEST(StreamWrite, WithoutAPointerChangesNothing) {
  Stream stream(this->server.options());
  const std::vector<Stream::Buffer> buffers = {{"one", 3}, {nullptr, 7}};
  const std::string text = "The pointer to the data is NULL, but its size is 7";
  EXPECT_TRUE(fails(9, text, Certainty::notStored, [&] { stream.write(nullptr, 7); }));
  EXPECT_TRUE(fails(9, text, Certainty::notStored, [&] { stream.writeMany(buffers.data(), 2); }));
  EXPECT_TRUE(fails(9, text, Certainty::notStored, [&] { stream.tryWrite(nullptr, 7); }));
  stream.write("x");
  stream.flush();
  EXPECT_EQ(dataOf(this->server.receive()), "x");
}

TYPED_TEST(StreamWrite, IsHandedOverByAFlush) {
  Stream stream(this->server.options());
  this->server.receive();
  stream.write("hello");
  EXPECT_FALSE(this->server.hasBatch());
  stream.flush();
  EXPECT_TRUE(this->server.hasBatch());
  EXPECT_EQ(dataOf(this->server.receive()), "hello");
  stream.flush();
  EXPECT_FALSE(this->server.hasBatch()) << "there was nothing to send";
}

TYPED_TEST(StreamWrite, TakesNothingWithoutRoomIfItMayNotWait) {
  Stream stream(this->server.options());
  const std::string taken = fill(stream);
  std::string stored = dataOf(this->server.receive());
  const std::string more = content(131072);
  EXPECT_EQ(stream.tryWrite(more.data(), more.size()), more.size());
  EXPECT_TRUE(stream.tryFlush());
  stored += dataOf(this->server.receive());
  EXPECT_TRUE(stored == taken + more) << stored.size();
}

TYPED_TEST(StreamWrite, EndsNoSegmentWithoutRoomIfItMayNotWait) {
  Stream stream(this->server.options());
  fill(stream);
  EXPECT_FALSE(stream.tryEndSegment());
  this->server.receive();
  EXPECT_TRUE(stream.tryEndSegment());
  stream.flush();
  EXPECT_EQ(this->server.receive().back().type, 2U);
}

TYPED_TEST(StreamWrite, SaysAfterATimeoutWhatItHasTaken) {
  Stream stream(this->server.options(1));
  const std::string data = content(3000000);
  std::size_t taken = 0;
  const auto error = errorOf([&] { stream.write(data); });
  ASSERT_TRUE(error);
  EXPECT_EQ(error->status(), 15);
  EXPECT_EQ(error->message(), kNoRoom);
  EXPECT_EQ(error->certainty(), Certainty::notStored);
  taken = error->taken();
  EXPECT_GT(taken, 500000U);
  EXPECT_LT(taken, data.size());

  std::string stored = dataOf(this->server.receive());
  while (taken < data.size()) {
    taken += stream.tryWrite(data.data() + taken, data.size() - taken);
    stored += dataOf(this->server.receive());
  }
  stream.flush();
  stored += dataOf(this->server.receive());
  EXPECT_TRUE(stored == data) << stored.size();
}

// A queue's deadline has whole seconds, so it may be early.
TYPED_TEST(StreamWrite, EndsSoonAfterItsTimeout) {
  using Clock = std::chrono::steady_clock;
  Stream stream(this->server.options(1));
  fill(stream);
  for (const std::function<void()>& call : {std::function<void()>([&] { stream.write("x"); }),
                                            std::function<void()>([&] { stream.endSegment(); }),
                                            std::function<void()>([&] { stream.finish(); })}) {
    const Clock::time_point begin = Clock::now();
    EXPECT_TRUE(errorOf(call));
    const auto passed = Clock::now() - begin;
    EXPECT_LT(passed, std::chrono::seconds(10));
    if (TypeParam::kTransport == Transport::ring) {
      EXPECT_GE(passed, std::chrono::seconds(1));
    }
  }
}

TYPED_TEST(StreamWrite, MayBeRepeatedAfterATimeoutThatTookNothing) {
  Stream stream(this->server.options(1));
  const std::string expected = fill(stream);
  const std::string record = content(131072);
  const auto error = errorOf([&] { stream.write(record); });
  ASSERT_TRUE(error);
  EXPECT_EQ(error->taken(), 0U);
  EXPECT_TRUE(fails(15, kNoRoom, Certainty::notStored, [&] { stream.write("x"); }));
  EXPECT_TRUE(fails(15, kNoRoom, Certainty::notStored, [&] { stream.endSegment(); }));
  std::string stored = dataOf(this->server.receive());
  stream.write(record);
  stream.endSegment();
  stream.flush();
  stored += dataOf(this->server.receive());
  EXPECT_TRUE(stored == expected + record) << stored.size();
}

TYPED_TEST(StreamWrite, GoesOnWhenTheServerGoesOn) {
  Stream stream(this->server.options());
  const std::string expected = fill(stream);
  const std::string more = content(2000000);
  std::string stored;
  std::atomic<bool> isWritten = false;
  std::thread receiver([&] {
    while (!isWritten || this->server.hasBatch()) {
      stored += dataOf(this->server.receive());
      std::this_thread::yield();
    }
  });
  stream.write(more);
  stream.flush();
  isWritten = true;
  receiver.join();
  EXPECT_TRUE(stored == expected + more) << stored.size();
}

TYPED_TEST(StreamWrite, EndsWithTheErrorThatTheServerAnswered) {
  Stream stream(this->server.options());
  this->server.receive();
  stream.write("x");
  stream.flush();
  this->server.refuse(1003, "disk full");
  stream.write("y");
  const auto fail = [](const auto& call) {
    return fails(1003, "disk full", Certainty::notStored, call);
  };
  EXPECT_TRUE(fail([&] { stream.flush(); }));
  EXPECT_TRUE(fail([&] { stream.write("z"); }));
  EXPECT_TRUE(fail([&] { stream.tryWrite("z", 1); }));
  EXPECT_TRUE(fail([&] { stream.endSegment(); }));
  EXPECT_TRUE(fail([&] { stream.tryFlush(); }));
  EXPECT_TRUE(fail([&] { stream.finish(); }));
  EXPECT_TRUE(fail([&] { stream.tryFinish(); }));
}

TYPED_TEST(StreamWrite, EndsWithTheReasonThatTheServerSent) {
  Stream stream(this->server.options());
  this->server.say("failed 1008 what served the queue died");
  EXPECT_TRUE(
      fails(1008, "what served the queue died", Certainty::notStored, [&] { stream.flush(); }));
}

TYPED_TEST(StreamWrite, EndsWithAReceiptThatCameTooEarly) {
  Stream stream(this->server.options());
  this->server.say(receiptOf(0, 0, 0, "cut-off"));
  EXPECT_TRUE(fails(902, "The server ended the stream: " + receiptOf(0, 0, 0, "cut-off"),
                    Certainty::notStored, [&] { stream.flush(); }));
}

TYPED_TEST(StreamWrite, DoesNotWaitForAServerThatHasEnded) {
  Stream stream(this->server.options());
  fill(stream);
  this->server.end();
  const std::string data = content(200000);
  EXPECT_TRUE(fails(901, "The server ended the lease: it died or was stopped", Certainty::notStored,
                    [&] { stream.write(data); }));
}

TYPED_TEST(StreamWrite, TellsWhyTheServerHasEnded) {
  Stream stream(this->server.options());
  fill(stream);
  this->server.say("failed 1004 the server was stopped: send again");
  this->server.end();
  const std::string data = content(200000);
  EXPECT_TRUE(fails(1004, "the server was stopped: send again", Certainty::notStored,
                    [&] { stream.write(data); }));
}

TEST(StreamStart, HasTheErrorsOfALease) {
  StreamOptions options;
  options.socket = "/nowhere/socket";
  EXPECT_TRUE(fails(900,
                    "No server to ask for a lease at /nowhere/socket: No such file or directory; "
                    "is it running, and may this user connect?",
                    Certainty::notStored, [&] { Stream stream(options); }));
  options.timeout = 0;
  EXPECT_TRUE(fails(9,
                    "Invalid timeout, specified value 0 was less than minimum allowed value of 1",
                    Certainty::notStored, [&] { Stream stream(options); }));
}

TEST(StreamStart, RejectsAQueueWhoseMessagesHaveNoRoomForData) {
  const QueuePair pair({.messageSize = 56, .depth = 4});  // a batch with one header
  FakeServer server;
  server.serve({.says = {"lease " + pair.name()}});
  EXPECT_TRUE(fails(
      89, "The messages of the server's queue are too small for data", Certainty::notStored, [&] {
        Stream stream({.socket = server.path(), .timeout = kLong, .transport = Transport::queue});
      }));
}

// Data of any length is cut into what fits.
TEST(StreamStart, TakesAQueueWhoseMessagesHaveRoomForAByte) {
  QueuePair pair({.messageSize = 57, .depth = 8});
  FakeServer server;
  server.serve({.says = {"lease " + pair.name()}});
  Stream stream({.socket = server.path(), .timeout = kLong, .transport = Transport::queue});
  stream.write("abc");
  stream.flush();
  std::string data;
  while (pair.waiting() > 0) {
    data += dataOf(recordsOf(pair.receive().bytes));
  }
  EXPECT_EQ(data, "abc");
  server.end();
}

TEST(StreamStart, ReportsAQueueThatIsNotThere) {
  FakeServer server;
  server.serve({.says = {"lease orvane-test-no-such-queue"}});
  EXPECT_TRUE(fails(
      901,
      "The stream's queue cannot be used any more: a process died inside it, or it "
      "was removed; open another stream",
      Certainty::notStored, [&] {
        Stream stream({.socket = server.path(), .timeout = kLong, .transport = Transport::queue});
      }));
}

}  // namespace
}  // namespace orvane::test
