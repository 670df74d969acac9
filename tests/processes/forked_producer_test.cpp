#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>

#include "orvane/writer.hpp"
#include "support/child.hpp"
#include "support/queue_pair.hpp"

namespace orvane::test {
namespace {

// Destroyed by exit(), as a producer's writer may be.
std::unique_ptr<ShmWriter> producer;

class ForkedProducer : public testing::Test {
 protected:
  ~ForkedProducer() override { producer.reset(); }

  // An open stream with a segment in its batch; the open record is out of the way.
  void start() {
    producer = std::make_unique<ShmWriter>("stream", pair.name(), 7, 0, false);
    producer->open();
    pair.discardAll();
    producer->writeSegment(reinterpret_cast<const unsigned char*>("hello"), 5);
  }

  QueuePair pair;
  const std::vector<Record> segmentAndClose = {
      {.type = 1, .seqNo = 2, .segmentDone = 0, .data = bytesOf("hello")},
      {.type = 3, .seqNo = 3, .segmentDone = 0}};
};

TEST_F(ForkedProducer, SendsNothingFromAChildThatLeavesByUnderscoreExit) {
  start();
  Child child([] { _exit(3); });
  ASSERT_EQ(child.nextChange(), "exit 3");
  EXPECT_EQ(pair.waiting(), 0U);
  producer.reset();
  EXPECT_EQ(pair.receiveRecords(), segmentAndClose);
  EXPECT_EQ(pair.waiting(), 0U);
}

// A limit: the child's copy of the writer knows nothing of the fork.
TEST_F(ForkedProducer, SendsPendingDataAndACloseOnceMoreFromAChildThatExits) {
  start();
  Child child([] { std::exit(3); });
  ASSERT_EQ(child.nextChange(), "exit 3");
  EXPECT_EQ(pair.receiveRecords(), segmentAndClose);
  producer.reset();
  EXPECT_EQ(pair.receiveRecords(), segmentAndClose);
  EXPECT_EQ(pair.waiting(), 0U);
}

TEST_F(ForkedProducer, SendsNeitherPendingDataNorACloseWhenItIsKilled) {
  Child child([this] {
    start();
    raise(SIGSTOP);
  });
  ASSERT_EQ(child.nextChange(), "stopped");
  child.signal(SIGKILL);
  ASSERT_EQ(child.nextChange(), "signal 9");
  EXPECT_EQ(pair.waiting(), 0U);
}

}  // namespace
}  // namespace orvane::test
