#include <gtest/gtest.h>
#include <signal.h>

#include "boost_error.hpp"
#include "support/peer.hpp"
#include "support/stream.hpp"
#include "support/throws.hpp"
#include "support/waiting_thread.hpp"
#include "support/writer_members.hpp"

namespace orvane::test {
namespace {

namespace ipc = boost::interprocess;

// The trap that the assertion handler is for: without it the wait never ends.
TEST(ServerKilledInsideTheLock, EndsAWaitForRoomByItsDeadlineWithAnExceptionAndTheBatchIsKept) {
  Stream stream;
  stream.open();
  stream.write("hello");
  stream.pair.fill();
  Child server([&] {
    raise(SIGSTOP);
    receiveAndRaise(stream.pair.name(), SIGKILL);
  });
  ASSERT_EQ(server.nextChange(), "stopped");
  const Stopwatch watch;
  ipc::error_code_t code = ipc::no_error;
  WaitingThread writer(
      [&] { code = codeOf<ipc::lock_exception>([&] { stream.writer.flush_shm_buffer(3); }); });
  writer.awaitSleep();
  server.signal(SIGCONT);
  EXPECT_EQ(server.nextChange(), "signal 9");
  EXPECT_TRUE(writer.returns());
  EXPECT_EQ(code, ipc::not_recoverable);
  EXPECT_GE(watch.seconds(), earliest(3));
  EXPECT_LT(watch.seconds(), 3 + 2 * 2);
  EXPECT_EQ(batchOf(stream.writer)->getNumEntries(), 1U);
}

TEST(ServerKilledWhileItWaitsForAMessage, IsMissedOnlyWhenTheQueueIsFull) {
  Stream stream;
  Child server([&] {
    ipc::message_queue queue(ipc::open_only, stream.pair.name().c_str());
    Bytes message(queue.get_max_msg_size());
    ipc::message_queue::size_type size = 0;
    unsigned int priority = 0;
    queue.receive(message.data(), message.size(), size, priority);
  });
  awaitSleep(server.pid());
  server.signal(SIGKILL);
  ASSERT_EQ(server.nextChange(), "signal 9");
  for (int slot = 0; slot < 8; ++slot) {
    const Stopwatch watch;
    EXPECT_NO_THROW(stream.writer.flush_shm_buffer(60));
    EXPECT_LT(watch.seconds(), 1);
  }
  const Stopwatch watch;
  EXPECT_TRUE(throwsErrno(15, "Timed out after waiting 2s to send data to orvaned on stream stream",
                          [&] { stream.writer.flush_shm_buffer(2); }));
  EXPECT_GE(watch.seconds(), earliest(2));
  EXPECT_LT(watch.seconds(), 4);
}

}  // namespace
}  // namespace orvane::test
