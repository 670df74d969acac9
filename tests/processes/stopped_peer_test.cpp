#include <gtest/gtest.h>
#include <signal.h>

#include "boost_error.hpp"
#include "support/peer.hpp"
#include "support/stream.hpp"
#include "support/waiting_thread.hpp"

namespace orvane::test {
namespace {

namespace ipc = boost::interprocess;

// The lock is given up after 2 s. Its clock is the wall's, ours is not: they may differ a little.
void failsAfterTheLockBound(ShmWriter& writer) {
  const Stopwatch watch;
  EXPECT_EQ(codeOf<ipc::interprocess_exception>([&] { writer.flush_shm_buffer(60); }),
            ipc::timeout_when_locking_error);
  EXPECT_GE(watch.seconds(), 1.9);
  EXPECT_LT(watch.seconds(), 4);
}

TEST(PeerStoppedInsideTheLock, FailsTheFlushAfterTwoSecondsAndItsBatchIsSentOnceThePeerGoesOn) {
  Stream stream;
  stream.open();
  stream.write("hello");
  Child peer([&] { sendAndRaise(stream.pair.name(), SIGSTOP); });
  ASSERT_EQ(peer.nextChange(), "stopped");
  failsAfterTheLockBound(stream.writer);
  peer.signal(SIGCONT);
  ASSERT_EQ(peer.nextChange(), "exit 0");
  stream.writer.flush_shm_buffer(0);
  EXPECT_EQ(
      stream.sent(),
      (std::vector<Record>{{.type = 1, .seqNo = 2, .segmentDone = 0, .data = bytesOf("hello")}}));
  EXPECT_EQ(stream.pair.receive().bytes, Bytes(1)) << "the peer's own message, of lower priority";
}

TEST(PeerStoppedInsideTheLock, OfTheResponseQueueFailsTheFlushAfterTwoSecondsOnceItHasSent) {
  Stream stream;
  stream.open();
  stream.write("hello");
  Child peer([&] { sendAndRaise(stream.pair.responseName(), SIGSTOP); });
  ASSERT_EQ(peer.nextChange(), "stopped");
  failsAfterTheLockBound(stream.writer);
  EXPECT_EQ(stream.sent().at(0).data, bytesOf("hello"));
  peer.signal(SIGCONT);
  ASSERT_EQ(peer.nextChange(), "exit 0");
  EXPECT_NO_THROW(stream.writer.flush_shm_buffer(0));
}

}  // namespace
}  // namespace orvane::test
