// The C interface over both transports: each call, and each status that its user can meet.

#include <poll.h>

#include <cstring>

#include "orvane/orvane.h"
#include "stream/stream_server.hpp"
#include "support/child.hpp"

namespace orvane::test {
namespace {

// A handle that is closed at the end.
struct Handle {
  Handle() = default;
  ~Handle() { orvane_stream_close(stream); }
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;

  std::string message() const { return orvane_stream_message(stream); }
  int certainty() const { return orvane_stream_certainty(stream); }

  orvane_stream* stream = nullptr;
};

// Success when the last call returned `status`, and the handle has all of it.
testing::AssertionResult failed(const Handle& handle, int expected, int status,
                                const std::string& message, int certainty) {
  if (status == expected && orvane_stream_status(handle.stream) == expected &&
      handle.message() == message && handle.certainty() == certainty) {
    return testing::AssertionSuccess();
  }
  return testing::AssertionFailure() << "status " << status << ", \"" << handle.message()
                                     << "\", certainty " << handle.certainty();
}

template <typename Memory>
class CStream : public testing::Test {
 protected:
  int open(Handle& handle, unsigned int timeout = kLong) {
    const StreamOptions given = server.options(timeout);
    socket = given.socket;
    orvane_stream_options options;
    orvane_stream_options_init(&options, sizeof options);
    options.socket = socket.c_str();
    options.label = "c";
    options.timeout = timeout;
    options.transport = static_cast<int>(given.transport);
    options.ring_bytes = given.ringBytes;
    return orvane_stream_open(&options, &handle.stream);
  }

  // Writes until there is no room; returns how many bytes were taken.
  static std::size_t fill(const Handle& handle) {
    const std::string data = content(100000);
    std::size_t all = 0;
    for (std::size_t taken = 1; taken > 0; all += taken) {
      EXPECT_EQ(orvane_stream_try_write(handle.stream, data.data(), data.size(), &taken), 0);
    }
    return all;
  }

  StreamServer<Memory> server;
  std::string socket;
};
TYPED_TEST_SUITE(CStream, Memories, MemoryName);

TYPED_TEST(CStream, SendsSegmentsAndReturnsTheReceipt) {
  Handle handle;
  ASSERT_EQ(this->open(handle), 0) << handle.message();
  EXPECT_EQ(orvane_stream_transport(handle.stream), static_cast<int>(TypeParam::kTransport));
  EXPECT_TRUE(this->server.request().ends_with(" label=c")) << this->server.request();
  std::size_t taken = 0;
  EXPECT_EQ(orvane_stream_write(handle.stream, "hello", 5, &taken), 0);
  EXPECT_EQ(taken, 5U);
  EXPECT_EQ(orvane_stream_end_segment(handle.stream), 0);
  const orvane_buffer buffers[] = {{"one", 3}, {"two", 3}};
  EXPECT_EQ(orvane_stream_write_many(handle.stream, buffers, 2, &taken), 0);
  EXPECT_EQ(taken, 6U);
  EXPECT_EQ(orvane_stream_try_write_many(handle.stream, buffers, 2, nullptr), 0);
  EXPECT_EQ(orvane_stream_try_end_segment(handle.stream), 0);
  EXPECT_EQ(orvane_stream_flush(handle.stream), 0);
  EXPECT_EQ(orvane_stream_try_flush(handle.stream), 0);
  EXPECT_EQ(orvane_stream_try_finish(handle.stream, nullptr), 15);
  EXPECT_EQ(dataOf(this->server.receive()), "helloonetwoonetwo");
  this->server.say(receiptOf(5, 17, 2));

  orvane_receipt receipt;
  EXPECT_EQ(orvane_stream_finish(handle.stream, orvane_receipt_init(&receipt, sizeof receipt)), 0);
  EXPECT_STREQ(receipt.stream, "x");
  EXPECT_EQ(receipt.records, 5U);
  EXPECT_EQ(receipt.bytes, 17U);
  EXPECT_EQ(receipt.segments, 2U);
  EXPECT_EQ(receipt.end, ORVANE_END_CLOSED);
  EXPECT_EQ(orvane_stream_try_finish(handle.stream, nullptr), 0);
}

TYPED_TEST(CStream, IsStoppedIfItIsClosedBeforeItsEnd) {
  {
    Handle handle;
    ASSERT_EQ(this->open(handle), 0);
  }
  EXPECT_EQ(this->server.receive().back().type, 4U);
}

TYPED_TEST(CStream, RejectsANullPointer) {
  Handle handle;
  ASSERT_EQ(this->open(handle), 0);
  std::size_t taken = 7;
  EXPECT_TRUE(failed(
      handle, ORVANE_INVALID_ARGUMENT, orvane_stream_write(handle.stream, nullptr, 3, &taken),
      "The pointer to the data is NULL, but its size is 3", ORVANE_CERTAINTY_NOT_STORED));
  EXPECT_EQ(taken, 0U);
  const std::string noBuffers = "The pointer to the buffers is NULL, but there are 2";
  for (const auto write : {orvane_stream_write_many, orvane_stream_try_write_many}) {
    EXPECT_TRUE(failed(handle, ORVANE_INVALID_ARGUMENT, write(handle.stream, nullptr, 2, nullptr),
                       noBuffers, ORVANE_CERTAINTY_NOT_STORED));
    EXPECT_EQ(write(handle.stream, nullptr, 0, nullptr), 0);
  }
}

TYPED_TEST(CStream, RejectsAReceiptWithoutASizeBeforeItEndsTheStream) {
  Handle handle;
  ASSERT_EQ(this->open(handle), 0);
  orvane_receipt receipt = {};
  const std::string message = "The size of the receipt is 0: empty it with orvane_receipt_init()";
  EXPECT_TRUE(failed(handle, ORVANE_INVALID_ARGUMENT, orvane_stream_finish(handle.stream, &receipt),
                     message, ORVANE_CERTAINTY_NOT_STORED));
  EXPECT_TRUE(failed(handle, ORVANE_INVALID_ARGUMENT,
                     orvane_stream_try_finish(handle.stream, &receipt), message,
                     ORVANE_CERTAINTY_NOT_STORED));
  EXPECT_EQ(orvane_stream_write(handle.stream, "x", 1, nullptr), 0);
}

// It is for a program that looks at something else now and then.
TYPED_TEST(CStream, WaitsForRoomAndForTheReceipt) {
  Handle handle;
  ASSERT_EQ(this->open(handle), 0);
  EXPECT_EQ(orvane_stream_wait(handle.stream, 0), 0);
  this->fill(handle);
  EXPECT_TRUE(failed(handle, ORVANE_TIMED_OUT, orvane_stream_wait(handle.stream, 1),
                     "There is neither room nor a receipt yet", ORVANE_CERTAINTY_UNKNOWN));
  this->server.receive();
  EXPECT_EQ(orvane_stream_wait(handle.stream, 60000), 0);
}

TYPED_TEST(CStream, TimesOutWithWhatWasTaken) {
  Handle handle;
  ASSERT_EQ(this->open(handle, 1), 0);
  const std::string data = content(3000000);
  std::size_t taken = 0;
  EXPECT_TRUE(failed(handle, ORVANE_TIMED_OUT,
                     orvane_stream_write(handle.stream, data.data(), data.size(), &taken), kNoRoom,
                     ORVANE_CERTAINTY_NOT_STORED));
  EXPECT_GT(taken, 500000U);
  EXPECT_LT(taken, data.size());
}

TYPED_TEST(CStream, HasNoRoomNow) {
  Handle handle;
  ASSERT_EQ(this->open(handle), 0);
  this->fill(handle);
  for (std::size_t taken = 1; taken > 0;) {
    orvane_stream_try_write(handle.stream, "x", 1, &taken);
  }
  EXPECT_TRUE(failed(handle, ORVANE_TIMED_OUT, orvane_stream_try_end_segment(handle.stream),
                     "There is no room now", ORVANE_CERTAINTY_NOT_STORED));
  EXPECT_TRUE(failed(handle, ORVANE_TIMED_OUT, orvane_stream_try_finish(handle.stream, nullptr),
                     "There is no receipt yet", ORVANE_CERTAINTY_UNKNOWN));
}

TYPED_TEST(CStream, TakesNothingAfterItsEnd) {
  Handle handle;
  ASSERT_EQ(this->open(handle), 0);
  orvane_stream_try_finish(handle.stream, nullptr);
  EXPECT_TRUE(failed(handle, ORVANE_NOT_OPEN, orvane_stream_write(handle.stream, "x", 1, nullptr),
                     "The stream takes no more data: finish() was called",
                     ORVANE_CERTAINTY_UNKNOWN));
}

TYPED_TEST(CStream, HasTheReceiptOfAnotherStreamForAnError) {
  Handle handle;
  ASSERT_EQ(this->open(handle), 0);
  orvane_stream_try_finish(handle.stream, nullptr);
  this->server.receive();
  this->server.say(receiptOf(1, 1, 1));
  EXPECT_TRUE(failed(handle, ORVANE_INCOMPLETE, orvane_stream_finish(handle.stream, nullptr),
                     "The server did not store the whole stream: 0 bytes in 0 segments were sent, "
                     "and the answer is: " +
                         receiptOf(1, 1, 1),
                     ORVANE_CERTAINTY_NOT_STORED));
}

TYPED_TEST(CStream, HasEachStatusOfTheServer) {
  for (const int status : {1000, 1001, 1002, 1003, 1004, 1008}) {
    StreamServer<TypeParam> server;
    const StreamOptions given = server.options();
    orvane_stream_options options;
    orvane_stream_options_init(&options, sizeof options);
    options.socket = given.socket.c_str();
    options.transport = static_cast<int>(given.transport);
    options.ring_bytes = given.ringBytes;
    Handle handle;
    ASSERT_EQ(orvane_stream_open(&options, &handle.stream), 0) << handle.message();
    orvane_stream_try_finish(handle.stream, nullptr);
    server.receive();
    server.say("failed " + std::to_string(status) + " the reason");
    EXPECT_TRUE(failed(handle, status, orvane_stream_finish(handle.stream, nullptr), "the reason",
                       status == 1008 ? ORVANE_CERTAINTY_UNKNOWN : ORVANE_CERTAINTY_NOT_STORED));
  }
}

TYPED_TEST(CStream, SaysThatTheServerHasEnded) {
  Handle handle;
  ASSERT_EQ(this->open(handle), 0);
  this->server.end();
  EXPECT_TRUE(failed(handle, ORVANE_LEASE_LOST, orvane_stream_flush(handle.stream),
                     kEndedWithoutReason, ORVANE_CERTAINTY_NOT_STORED));
}

TYPED_TEST(CStream, HasADescriptor) {
  Handle handle;
  ASSERT_EQ(this->open(handle), 0);
  const int fd = orvane_stream_fd(handle.stream);
  pollfd readable = {fd, POLLIN, 0};
  EXPECT_EQ(poll(&readable, 1, 0), 0);
  this->server.end();
  EXPECT_EQ(poll(&readable, 1, 60000), 1);
}

TYPED_TEST(CStream, IsOfNoUseToAForkedChild) {
  Handle handle;
  ASSERT_EQ(this->open(handle), 0);
  this->server.awaitStart();
  Child child([&] {
    if (!failed(handle, ORVANE_LEASE_LOST, orvane_stream_write(handle.stream, "x", 1, nullptr),
                "A forked child cannot use the stream of its parent: open another one",
                ORVANE_CERTAINTY_UNKNOWN)) {
      throw std::runtime_error("another error, or none");
    }
    orvane_stream_close(handle.stream);
  });
  EXPECT_EQ(child.nextChange(), "exit 0");
}

TYPED_TEST(CStream, ReturnsWhatAnOlderProgramKnowsOfAReceipt) {
  Handle handle;
  ASSERT_EQ(this->open(handle), 0);
  orvane_stream_try_finish(handle.stream, nullptr);
  this->server.receive();
  this->server.say(receiptOf(0, 0, 0, "closed"));
  orvane_receipt receipt;
  std::memset(&receipt, 0x55, sizeof receipt);
  orvane_receipt_init(&receipt, offsetof(orvane_receipt, bytes));
  EXPECT_EQ(orvane_stream_finish(handle.stream, &receipt), 0);
  EXPECT_STREQ(receipt.stream, "x");
  EXPECT_EQ(receipt.records, 0U);
  EXPECT_EQ(receipt.bytes, 0x5555555555555555U) << "it does not know this";
  EXPECT_EQ(receipt.size, offsetof(orvane_receipt, bytes));
}

TEST(COpen, GivesAHandleWithTheReason) {
  orvane_stream_options options;
  orvane_stream_options_init(&options, sizeof options);
  EXPECT_EQ(options.timeout, 30U);
  EXPECT_EQ(options.transport, ORVANE_TRANSPORT_AUTOMATIC);
  EXPECT_EQ(options.ring_bytes, 8388608U);
  options.socket = "/nowhere/socket";
  Handle handle;
  const int status = orvane_stream_open(&options, &handle.stream);
  ASSERT_NE(handle.stream, nullptr);
  EXPECT_TRUE(failed(handle, ORVANE_NO_SERVER, status,
                     "No server to ask for a lease at /nowhere/socket: No such file or directory; "
                     "is it running, and may this user connect?",
                     ORVANE_CERTAINTY_NOT_STORED));
  EXPECT_EQ(orvane_stream_write(handle.stream, "x", 1, nullptr), ORVANE_NO_SERVER);
  EXPECT_EQ(orvane_stream_fd(handle.stream), -1);
  EXPECT_EQ(orvane_stream_transport(handle.stream), -1);
}

TEST(COpen, RejectsAQueueWhoseMessagesHaveNoRoomForData) {
  const QueuePair pair({.messageSize = 56, .depth = 4});
  FakeServer server;
  server.serve({.says = {"lease " + pair.name()}});
  orvane_stream_options options;
  orvane_stream_options_init(&options, sizeof options);
  options.socket = server.path().c_str();
  options.transport = ORVANE_TRANSPORT_QUEUE;
  Handle handle;
  const int status = orvane_stream_open(&options, &handle.stream);
  EXPECT_TRUE(failed(handle, ORVANE_DOES_NOT_FIT, status,
                     "The messages of the server's queue are too small for data",
                     ORVANE_CERTAINTY_NOT_STORED));
}

TEST(COpen, HasEachRefusalOfTheServer) {
  for (const int refused : {1005, 1006, 1007}) {
    FakeServer server;
    const std::string packet = "refused " + std::to_string(refused) + " the reason";
    server.serveEach({{.says = {packet}}, {.says = {packet}}});
    orvane_stream_options options;
    orvane_stream_options_init(&options, sizeof options);
    options.socket = server.path().c_str();
    Handle handle;
    const int status = orvane_stream_open(&options, &handle.stream);
    EXPECT_TRUE(failed(handle, refused, status, "the reason", ORVANE_CERTAINTY_NOT_STORED));
    server.end();
  }
}

// So that a struct can grow, and nobody's option is ignored.
TEST(COpen, RejectsOptionsWhoseSizeItDoesNotKnow) {
  struct Later {
    orvane_stream_options known;
    std::uint64_t added;
  };
  Later later = {};
  orvane_stream_options_init(&later.known, sizeof later);
  EXPECT_EQ(later.known.timeout, 30U);
  later.known.socket = "/nowhere/socket";
  const auto rejected = [&](const std::string& message) {
    Handle handle;
    const int status = orvane_stream_open(&later.known, &handle.stream);
    return failed(handle, ORVANE_INVALID_ARGUMENT, status, message, ORVANE_CERTAINTY_NOT_STORED);
  };
  {
    Handle handle;
    EXPECT_EQ(orvane_stream_open(&later.known, &handle.stream), ORVANE_NO_SERVER);
  }
  later.added = 1;
  EXPECT_TRUE(
      rejected("This release of liborvane_c does not know one of the options: install the release "
               "that the program was compiled with"));
  for (const std::size_t size :
       {std::size_t{0}, sizeof(orvane_stream_options) - 1, std::size_t{1} << 40}) {
    later.known.size = size;
    EXPECT_TRUE(rejected("The size of the options is " + std::to_string(size) +
                         ": fill them in with orvane_stream_options_init()"));
  }
}

TEST(COpen, RejectsWhatNoStreamHas) {
  orvane_stream_options options;
  orvane_stream_options_init(&options, sizeof options);
  options.socket = "/nowhere/socket";
  options.transport = 3;
  Handle handle;
  const int status = orvane_stream_open(&options, &handle.stream);
  EXPECT_TRUE(failed(handle, ORVANE_INVALID_ARGUMENT, status, "There is no transport 3",
                     ORVANE_CERTAINTY_NOT_STORED));
  EXPECT_EQ(orvane_stream_open(&options, nullptr), ORVANE_INVALID_ARGUMENT);
  EXPECT_EQ(orvane_stream_write(nullptr, "x", 1, nullptr), ORVANE_INVALID_ARGUMENT);
  EXPECT_STREQ(orvane_stream_message(nullptr), "There is not enough memory");
  orvane_stream_close(nullptr);
}

}  // namespace
}  // namespace orvane::test
