#include <gtest/gtest.h>
#include <signal.h>

#include <memory>

#include "boost_error.hpp"
#include "support/peer.hpp"
#include "support/stream.hpp"
#include "support/waiting_thread.hpp"
#include "support/writer_members.hpp"

namespace orvane::test {
namespace {

namespace ipc = boost::interprocess;

constexpr double kAtOnce = 1;

void killAPeerInsideTheLockOf(const std::string& queueName) {
  Child peer([&] { sendAndRaise(queueName, SIGKILL); });
  ASSERT_EQ(peer.nextChange(), "signal 9");
}

TEST(PeerKilledInsideTheLock, FailsTheNextFlushAtOnceAndEveryLaterOneAndTheBatchIsKept) {
  Stream stream;
  stream.open();
  stream.write("hello");
  killAPeerInsideTheLockOf(stream.pair.name());
  for (int flush = 0; flush < 3; ++flush) {
    const Stopwatch watch;
    EXPECT_EQ(codeOf<ipc::lock_exception>([&] { stream.writer.flush_shm_buffer(60); }),
              ipc::not_recoverable);
    EXPECT_LT(watch.seconds(), kAtOnce);
    const ShmBatch& batch = *batchOf(stream.writer);
    EXPECT_EQ(
        recordsOf({batch.getRaw(), batch.getRaw() + batch.getRawSize()}),
        (std::vector<Record>{{.type = 1, .seqNo = 2, .segmentDone = 0, .data = bytesOf("hello")}}));
  }
}

TEST(PeerKilledInsideTheLock, LetsTheDestructorOfAnOpenWriterEndAtOnce) {
  const QueuePair pair;
  auto writer = std::make_unique<ShmWriter>("stream", pair.name(), 60, 0, false);
  writer->open();
  killAPeerInsideTheLockOf(pair.name());
  const Stopwatch watch;
  EXPECT_NO_THROW(writer.reset());
  EXPECT_LT(watch.seconds(), kAtOnce);
  EXPECT_EQ(mappingsOf(pair.name()), 1U);
}

TEST(PeerKilledInsideTheLock, OfTheResponseQueueFailsEachFlushAtOnceAfterItsBatchWasSent) {
  Stream stream;
  stream.open();
  killAPeerInsideTheLockOf(stream.pair.responseName());
  for (const char* text : {"first", "second"}) {
    stream.write(text);
    const Stopwatch watch;
    EXPECT_EQ(codeOf<ipc::lock_exception>([&] { stream.writer.flush_shm_buffer(60); }),
              ipc::not_recoverable);
    EXPECT_LT(watch.seconds(), kAtOnce);
    EXPECT_EQ(stream.sent().at(0).data, bytesOf(text));
  }
}

}  // namespace
}  // namespace orvane::test
