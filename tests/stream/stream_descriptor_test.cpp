#include <poll.h>

#include "stream_server.hpp"
#include "support/eventually.hpp"

namespace orvane::test {
namespace {

template <typename Memory>
class StreamDescriptor : public testing::Test {
 protected:
  static bool isReadable(int fd, int milliseconds = 0) {
    pollfd one = {fd, POLLIN, 0};
    return poll(&one, 1, milliseconds) == 1;
  }

  StreamServer<Memory> server;
};
TYPED_TEST_SUITE(StreamDescriptor, Memories, MemoryName);

TYPED_TEST(StreamDescriptor, IsAlwaysTheSame) {
  Stream stream(this->server.options());
  const int fd = stream.fd();
  stream.write("x");
  EXPECT_EQ(stream.fd(), fd);
  EXPECT_FALSE(this->isReadable(fd));
}

TYPED_TEST(StreamDescriptor, IsReadableWhenTheReceiptHasCome) {
  Stream stream(this->server.options());
  const int fd = stream.fd();
  EXPECT_EQ(stream.tryFinish(), std::nullopt);
  this->server.receive();
  this->server.say(receiptOf(0, 0, 0));
  ASSERT_TRUE(this->isReadable(fd, kTimeoutMilliseconds));
  std::optional<Receipt> receipt;
  EXPECT_TRUE(eventually([&] { return (receipt = stream.tryFinish()).has_value(); }));
  EXPECT_EQ(textOf(*receipt), receiptOf(0, 0, 0));
  EXPECT_FALSE(this->isReadable(fd));
}

TYPED_TEST(StreamDescriptor, IsReadableWhenTheServerHasEnded) {
  Stream stream(this->server.options());
  const int fd = stream.fd();
  this->server.end();
  EXPECT_TRUE(this->isReadable(fd, kTimeoutMilliseconds));
}

TYPED_TEST(StreamDescriptor, IsNotNeededToWait) {
  using std::chrono::milliseconds;
  const milliseconds longest(kTimeoutMilliseconds);
  Stream stream(this->server.options());
  EXPECT_TRUE(stream.wait(milliseconds(0))) << "there is room";
  fill(stream);
  EXPECT_FALSE(stream.wait(milliseconds(1)));
  this->server.receive();
  EXPECT_TRUE(stream.wait(milliseconds::max()));
  EXPECT_EQ(stream.tryFinish(), std::nullopt);
  EXPECT_FALSE(stream.wait(milliseconds(1)));
  this->server.receive();
  EXPECT_FALSE(stream.wait(milliseconds(1)));
  this->server.say("failed 1003 disk full");
  EXPECT_TRUE(stream.wait(longest));
  EXPECT_TRUE(fails(1003, "disk full", Certainty::notStored, [&] { stream.tryFinish(); }));
  EXPECT_TRUE(stream.wait(longest)) << "no call waits any more";
}

class StreamRoom : public testing::Test {
 protected:
  static bool isReadable(int fd, int milliseconds = 0) {
    pollfd one = {fd, POLLIN, 0};
    return poll(&one, 1, milliseconds) == 1;
  }

  StreamServer<RingMemory> server;
};

TEST_F(StreamRoom, OfARingIsToldAfterAFullTry) {
  Stream stream(server.options());
  const int fd = stream.fd();
  for (int i = 0; i < 3; ++i) {
    fill(stream);
    EXPECT_FALSE(isReadable(fd)) << "there is no room yet";
    server.receive();
    ASSERT_TRUE(isReadable(fd, kTimeoutMilliseconds));
    EXPECT_EQ(stream.tryWrite("x", 1), 1U);
    EXPECT_FALSE(isReadable(fd)) << "nobody waits for room";
  }
}

TEST_F(StreamRoom, IsToldForTheEndOfASegmentAndOfTheStreamToo) {
  Stream stream(server.options());
  const int fd = stream.fd();
  fill(stream);
  EXPECT_FALSE(stream.tryEndSegment());
  server.receive();
  ASSERT_TRUE(isReadable(fd, kTimeoutMilliseconds));
  EXPECT_TRUE(stream.tryEndSegment());
  fill(stream);
  EXPECT_EQ(stream.tryFinish(), std::nullopt);
  EXPECT_FALSE(isReadable(fd));
  server.receive();
  ASSERT_TRUE(isReadable(fd, kTimeoutMilliseconds));
}

// The ring holds 16 answers, and a server with more of them does not go on.
TEST_F(StreamRoom, IsToldWhenTheServerHasAnsweredAgain) {
  Stream stream(server.options());
  const int fd = stream.fd();
  stream.write("x");
  EXPECT_EQ(stream.tryFinish(), std::nullopt);
  EXPECT_FALSE(isReadable(fd));
  server.receive();
  ASSERT_TRUE(isReadable(fd, kTimeoutMilliseconds));
  EXPECT_EQ(stream.tryFinish(), std::nullopt);
  EXPECT_FALSE(isReadable(fd)) << "everything is answered";
}

TEST_F(StreamRoom, IsForgottenWithTheStream) {
  Stream stream(server.options());
  stream.fd();
  fill(stream);  // a thread waits for room when the stream is destroyed
}

}  // namespace
}  // namespace orvane::test
