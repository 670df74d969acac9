#include <thread>

#include "stream_server.hpp"
#include "support/child.hpp"

namespace orvane::test {
namespace {

template <typename Memory>
class StreamFinish : public testing::Test {
 protected:
  // Has sent 5 bytes in a segment, and its end.
  std::unique_ptr<Stream> ended(unsigned int timeout = kLong) {
    auto stream = std::make_unique<Stream>(server.options(timeout));
    stream->write("hello");
    EXPECT_EQ(stream->tryFinish(), std::nullopt);
    server.receive();
    return stream;
  }

  StreamServer<Memory> server;
};
TYPED_TEST_SUITE(StreamFinish, Memories, MemoryName);

constexpr char kFinished[] = "The stream takes no more data: finish() was called";

TYPED_TEST(StreamFinish, ReturnsTheReceipt) {
  const auto stream = this->ended();
  this->server.say(receiptOf(1, 5, 1));
  EXPECT_EQ(textOf(stream->finish()), receiptOf(1, 5, 1));
}

TYPED_TEST(StreamFinish, WaitsForTheServer) {
  Stream stream(this->server.options());
  stream.write("hello");
  std::thread receiver([this] {
    std::vector<Record> records;
    while (records.empty() || records.back().type != kRecordClose) {
      for (const Record& record : this->server.receive()) {
        records.push_back(record);
      }
      std::this_thread::yield();
    }
    this->server.say(receiptOf(1, 5, 1));
  });
  EXPECT_EQ(textOf(stream.finish()), receiptOf(1, 5, 1));
  receiver.join();
}

TYPED_TEST(StreamFinish, ReturnsTheSameReceiptAgain) {
  const auto stream = this->ended();
  this->server.say(receiptOf(1, 5, 1));
  const Receipt receipt = stream->finish();
  EXPECT_EQ(stream->finish(), receipt);
  EXPECT_EQ(stream->tryFinish(), receipt);
}

TYPED_TEST(StreamFinish, IsTheEndOfTheData) {
  const auto stream = this->ended();
  EXPECT_TRUE(fails(44, kFinished, Certainty::unknown, [&] { stream->write("x"); }));
  this->server.say(receiptOf(1, 5, 1));
  stream->finish();
  EXPECT_TRUE(fails(44, kFinished, Certainty::stored, [&] { stream->write("x"); }));
  EXPECT_TRUE(fails(44, kFinished, Certainty::stored, [&] { stream->tryWrite("x", 1); }));
  EXPECT_TRUE(fails(44, kFinished, Certainty::stored, [&] { stream->endSegment(); }));
  EXPECT_TRUE(fails(44, kFinished, Certainty::stored, [&] { stream->flush(); }));
  EXPECT_EQ(textOf(stream->finish()), receiptOf(1, 5, 1));
}

TYPED_TEST(StreamFinish, CountsTheSegmentsThatHaveData) {
  Stream stream(this->server.options());
  stream.endSegment();
  stream.write("ab");
  stream.endSegment();
  stream.endSegment();
  stream.write("c");
  EXPECT_EQ(stream.tryFinish(), std::nullopt);
  this->server.receive();
  this->server.say(receiptOf(2, 3, 2));
  EXPECT_EQ(textOf(stream.finish()), receiptOf(2, 3, 2));
}

TYPED_TEST(StreamFinish, OfAStreamWithoutDataHasAReceiptToo) {
  Stream stream(this->server.options());
  EXPECT_EQ(stream.tryFinish(), std::nullopt);
  EXPECT_EQ(this->server.receive().back(), (Record{.type = 3, .seqNo = 2}));
  this->server.say(receiptOf(0, 0, 0));
  EXPECT_EQ(textOf(stream.finish()), receiptOf(0, 0, 0));
}

TYPED_TEST(StreamFinish, MayBeCalledAgainWhenNoReceiptCame) {
  const auto stream = this->ended(1);
  EXPECT_TRUE(fails(15, kNoReceipt, Certainty::unknown, [&] { stream->finish(); }));
  EXPECT_TRUE(fails(15, kNoReceipt, Certainty::unknown, [&] { stream->finish(); }));
  EXPECT_TRUE(this->server.receive().empty()) << "the end is sent once";
  this->server.say(receiptOf(1, 5, 1));
  EXPECT_EQ(textOf(stream->finish()), receiptOf(1, 5, 1));
}

TYPED_TEST(StreamFinish, MayBeCalledAgainWhenThereWasNoRoom) {
  Stream stream(this->server.options(1));
  const std::string data = fill(stream);
  EXPECT_TRUE(fails(15, kNoReceipt, Certainty::unknown, [&] { stream.finish(); }));
  std::vector<Record> records = this->server.receive();
  EXPECT_EQ(stream.tryFinish(), std::nullopt);
  for (const Record& record : this->server.receive()) {
    records.push_back(record);
  }
  EXPECT_TRUE(dataOf(records) == data);
  EXPECT_EQ(records.back().type, 3U);
  this->server.say(receiptOf(data.size() / 100000, data.size(), 1));
  EXPECT_EQ(stream.finish().bytes, data.size());
}

TYPED_TEST(StreamFinish, RejectsTheReceiptOfAnotherStream) {
  for (const std::string& receipt :
       {receiptOf(1, 4, 1), receiptOf(1, 5, 2), receiptOf(1, 5, 1, "broken"),
        receiptOf(1, 5, 1, "cut-off"), receiptOf(1, 5, 1, "stopped")}) {
    StreamServer<TypeParam> server;
    Stream stream(server.options());
    stream.write("hello");
    stream.tryFinish();
    server.receive();
    server.say(receipt);
    const std::string text =
        "The server did not store the whole stream: 5 bytes in 1 segments were sent, and the "
        "answer "
        "is: " +
        receipt;
    EXPECT_TRUE(fails(902, text, Certainty::notStored, [&] { stream.finish(); }));
    EXPECT_TRUE(fails(902, text, Certainty::notStored, [&] { stream.finish(); }));
  }
}

TYPED_TEST(StreamFinish, KnowsThatARefusedStreamIsNotStored) {
  for (const int status : {1000, 1001, 1002, 1003, 1004}) {
    StreamServer<TypeParam> server;
    Stream stream(server.options());
    stream.write("hello");
    stream.tryFinish();
    server.receive();
    server.say("failed " + std::to_string(status) + " the reason");
    EXPECT_TRUE(fails(status, "the reason", Certainty::notStored, [&] { stream.finish(); }));
    EXPECT_TRUE(fails(status, "the reason", Certainty::notStored, [&] { stream.tryFinish(); }));
  }
}

TYPED_TEST(StreamFinish, DoesNotKnowWhatAWorkerThatDiedHadStored) {
  const auto stream = this->ended();
  this->server.say("failed 1008 what served the queue died");
  EXPECT_TRUE(
      fails(1008, "what served the queue died", Certainty::unknown, [&] { stream->finish(); }));
}

// A ring's answer to the end of the stream is as good as a receipt; a queue's answers may be lost.
TYPED_TEST(StreamFinish, KnowsWithoutAReceiptWhatARingHasAnswered) {
  const auto stream = this->ended();
  this->server.end();
  if (TypeParam::kTransport == Transport::ring) {
    EXPECT_TRUE(fails(
        901, std::string("The stream is stored, but its receipt is lost: ") + kEndedWithoutReason,
        Certainty::stored, [&] { stream->finish(); }));
  } else {
    EXPECT_TRUE(fails(901, kEndedWithoutReason, Certainty::unknown, [&] { stream->finish(); }));
  }
}

TYPED_TEST(StreamFinish, DoesNotKnowWhatWasStoredIfTheServerEndedFirst) {
  Stream stream(this->server.options());
  stream.write("hello");
  EXPECT_EQ(stream.tryFinish(), std::nullopt);
  this->server.end();
  EXPECT_TRUE(fails(901, kEndedWithoutReason, Certainty::unknown, [&] { stream.finish(); }));
  EXPECT_TRUE(fails(901, kEndedWithoutReason, Certainty::unknown, [&] { stream.finish(); }));
}

TYPED_TEST(StreamFinish, TakesAReceiptThatWasSentBeforeTheServerEnded) {
  Stream stream(this->server.options());
  stream.write("hello");
  EXPECT_EQ(stream.tryFinish(), std::nullopt);
  this->server.say(receiptOf(1, 5, 1));
  this->server.end();
  EXPECT_EQ(textOf(stream.finish()), receiptOf(1, 5, 1));
}

template <typename Memory>
class StreamEndedOtherwise : public testing::Test {
 protected:
  StreamServer<Memory> server;
};
TYPED_TEST_SUITE(StreamEndedOtherwise, Memories, MemoryName);

TYPED_TEST(StreamEndedOtherwise, IsStoppedIfItIsDropped) {
  {
    Stream stream(this->server.options());
    stream.write("hello");
  }
  const std::vector<Record> records = this->server.receive();
  EXPECT_EQ(dataOf(records), "hello");
  EXPECT_EQ(records.back().type, 4U);
}

TYPED_TEST(StreamEndedOtherwise, IsNotStoppedIfItsEndWasSent) {
  {
    Stream stream(this->server.options());
    stream.tryFinish();
  }
  EXPECT_EQ(this->server.receive().back().type, 3U);
}

TYPED_TEST(StreamEndedOtherwise, IsDroppedWithoutALongWait) {
  std::string data;
  {
    Stream stream(this->server.options());
    data = fill(stream);
  }
  EXPECT_NE(this->server.receive().back().type, 4U) << "there was no room";
}

TYPED_TEST(StreamEndedOtherwise, SendsNothingMoreAfterAnUnsentEnd) {
  {
    Stream stream(this->server.options());
    fill(stream);
    EXPECT_EQ(stream.tryFinish(), std::nullopt);
  }
  for (const Record& record : this->server.receive()) {
    EXPECT_LT(record.type, 2U);
  }
}

TYPED_TEST(StreamEndedOtherwise, IsOfNoUseToAForkedChild) {
  auto stream = std::make_unique<Stream>(this->server.options());
  stream->write("hello");
  stream->fd();
  this->server.awaitStart();
  Child child([&] {
    const char* const text = "A forked child cannot use the stream of its parent: open another one";
    const auto fail = [&](const auto& call) {
      if (!fails(901, text, Certainty::unknown, call)) {
        throw std::runtime_error("another error, or none");
      }
    };
    fail([&] { stream->write("x"); });
    fail([&] { stream->tryWrite("x", 1); });
    fail([&] { stream->endSegment(); });
    fail([&] { stream->flush(); });
    fail([&] { stream->finish(); });
    fail([&] { stream->fd(); });
    stream.reset();
  });
  EXPECT_EQ(child.nextChange(), "exit 0");
  stream->write("!");
  stream->flush();
  const std::vector<Record> records = this->server.receive();
  EXPECT_EQ(dataOf(records), "hello!");
  EXPECT_EQ(records.size(), 3U);
}

}  // namespace
}  // namespace orvane::test
