#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include "boost_error.hpp"
#include "orvane/writer.hpp"
#include "support/queue_pair.hpp"
#include "support/waiting_thread.hpp"

namespace orvane::test {
namespace {

namespace ipc = boost::interprocess;

// What a creator that was killed leaves behind: `size` bytes of zeros under the queue's name.
class HalfMadeQueue {
 public:
  HalfMadeQueue(const std::string& queueName, std::size_t size) : name(queueName) {
    const int fd = shm_open(name.text().c_str(), O_CREAT | O_EXCL | O_RDWR, 0600);
    EXPECT_GE(fd, 0);
    EXPECT_EQ(ftruncate(fd, static_cast<off_t>(size)), 0);
    close(fd);
  }

  const std::string& text() const { return name.text(); }

 private:
  QueueName name;
};

// How long a writer tries to attach before it finds the queue corrupted.
double secondsToRefuse(const std::string& queueName) {
  const Stopwatch watch;
  EXPECT_EQ(
      codeOf<ipc::interprocess_exception>([&] { ShmWriter("stream", queueName, 7, 0, false); }),
      ipc::corrupted_error);
  return watch.seconds();
}

constexpr double kShortestWait = 4.5;  // 5 s for a creator that is still at work
constexpr double kBound = 8;

TEST(HalfMadeQueue, OfNoBytesIsRefusedAfterFiveSeconds) {
  const HalfMadeQueue queue(uniqueQueueName(), 0);
  const double seconds = secondsToRefuse(queue.text());
  EXPECT_GE(seconds, kShortestWait);
  EXPECT_LT(seconds, kBound);
}

TEST(HalfMadeQueue, OfOneByteIsRefusedAtOnceBecauseItsCreatorGaveUp) {
  const HalfMadeQueue queue(uniqueQueueName(), 1);
  EXPECT_LT(secondsToRefuse(queue.text()), 1);
}

// 8 messages of 1024 bytes.
TEST(HalfMadeQueue, OfItsWholeSizeIsRefusedAfterFiveSeconds) {
  const HalfMadeQueue queue(uniqueQueueName(), 8592);
  const double seconds = secondsToRefuse(queue.text());
  EXPECT_GE(seconds, kShortestWait);
  EXPECT_LT(seconds, kBound);
}

// 10 messages of 132 bytes.
TEST(HalfMadeQueue, ForResponsesIsRefusedAfterFiveSecondsAndTheSendQueueDetached) {
  const QueueName name(uniqueQueueName());
  const ipc::message_queue sendQueue(ipc::create_only, name.text().c_str(), 8, 1024);
  const HalfMadeQueue queue(name.text() + "Response", 1808);
  const double seconds = secondsToRefuse(name.text());
  EXPECT_GE(seconds, kShortestWait);
  EXPECT_LT(seconds, kBound);
  EXPECT_EQ(mappingsOf(name.text()), 1U);
}

}  // namespace
}  // namespace orvane::test
