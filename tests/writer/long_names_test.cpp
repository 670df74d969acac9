#include <gtest/gtest.h>

#include "orvane/queue_name.hpp"
#include "support/recording_sink.hpp"
#include "support/stream.hpp"
#include "support/throws.hpp"
#include "transports.hpp"

namespace orvane::test {
namespace {

// As long as a queue's name may be: the response queue's has eight characters more, and a name in
// /dev/shm at most 255.
std::string longestQueueName() {
  std::string name = uniqueQueueName() + '.';
  return name + std::string(247 - name.size(), 'q');
}

struct LongNamedQueues {
  QueueName name{longestQueueName()};
  QueueName answers{name.text() + "Response"};
  boost::interprocess::message_queue sendQueue{boost::interprocess::create_only,
                                               name.text().c_str(), 1, 1024};
  boost::interprocess::message_queue responseQueue{boost::interprocess::create_only,
                                                   answers.text().c_str(), 1, 132};
};

template <typename Transport>
class LongName : public testing::Test {};
TYPED_TEST_SUITE(LongName, Transports, TransportName);

TYPED_TEST(LongName, OfAStreamIsWholeInTheTimeOutText) {
  const std::string name = std::string(70000, 'n') + "end";
  TypeParam stream({.name = name});
  stream.fill();
  EXPECT_TRUE(throwsErrno(15,
                          "Timed out after waiting 0s to send data to orvaned on stream " + name,
                          [&] { stream.writer->stop(true); }));
}

TEST(LongName, OfAQueueIsWholeWhenTheWriterAttaches) {
  LongNamedQueues queues;
  {
    ShmWriter writer("stream", queues.name.text(), 7, 0, false);
    EXPECT_EQ(mappingsOf(queues.name.text()), 2U);
    EXPECT_EQ(mappingsOf(queues.answers.text()), 2U);
    writer.flush_shm_buffer(0);
  }
  EXPECT_EQ(queues.sendQueue.get_num_msg(), 1U);
  EXPECT_EQ(mappingsOf(queues.name.text()), 1U);
}

TEST(LongName, OfAQueueIsWholeInTheTraceOfOpen) {
  LongNamedQueues queues;
  ShmWriter writer("stream", queues.name.text(), 7, 0, true);
  RecordingSink sink(RecordingSink::Tracing::on);
  writer.open();
  EXPECT_EQ(sink.take().at(1),
            traced("ShmWriter:open: orvane msgQueueName is " + queues.name.text()));
  ox::setTracing(false);
  writer.close();
}

TEST(LongName, OfAResponseQueueIsTheWholeNameAndItsEnding) {
  const std::string name(70000, 'q');
  EXPECT_EQ(getMessageQueueResponseName(name), name + "Response");
}

template <typename Transport>
class LongText : public testing::Test {};
TYPED_TEST_SUITE(LongText, Transports, TransportName);

TYPED_TEST(LongText, OfAnAnswerIsWhole) {
  TypeParam stream;
  const std::string text = std::string(126, 't') + "!";
  stream.post(1001, text);
  EXPECT_TRUE(throwsErrno(1001, text, [&] { stream.flush(); }));
}

}  // namespace
}  // namespace orvane::test
