// An application may use Boost.Interprocess with its own settings. Its inline code has the names
// that the library's has, and at load time an executable's copy would come first.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>

#include "boost_error.hpp"
#include "orvane/writer.hpp"
#include "support/peer.hpp"
#include "support/waiting_thread.hpp"

#if defined(BOOST_ENABLE_ASSERT_HANDLER) || defined(BOOST_INTERPROCESS_ENABLE_TIMEOUT_WHEN_LOCKING)
#error "this program stands for one that knows nothing of the library's settings"
#endif

namespace boost {

// The application's own handler, which must not become the library's.
void assertion_failed(char const*, char const*, char const*, long) {
  std::abort();
}

}  // namespace boost

namespace orvane::test {
namespace {

namespace ipc = boost::interprocess;

class ForeignBoost : public testing::Test {
 protected:
  ForeignBoost()
      : name("orvane_test." + std::to_string(getpid()) + ".foreign_boost"),
        sendQueue(ipc::create_only, name.c_str(), 1, 1024),
        responseQueue(ipc::create_only, (name + "Response").c_str(), 3, 132),
        writer("stream", name, 60, 0, false) {}
  ~ForeignBoost() override {
    ipc::message_queue::remove(name.c_str());
    ipc::message_queue::remove((name + "Response").c_str());
  }

  const std::string name;
  ipc::message_queue sendQueue;
  ipc::message_queue responseQueue;
  ShmWriter writer;
};

TEST(ForeignBoostSymbols, OfThisProgramAreExported) {
  EXPECT_NE(dlsym(RTLD_DEFAULT, "_ZN5boost12interprocess18interprocess_mutex4lockEv"), nullptr);
  EXPECT_NE(dlsym(RTLD_DEFAULT, "_ZN5boost16assertion_failedEPKcS1_S1_l"), nullptr);
}

TEST_F(ForeignBoost, DoesNotTakeTheLockBoundAway) {
  Child peer([&] { sendAndRaise(name, SIGSTOP); });
  ASSERT_EQ(peer.nextChange(), "stopped");
  std::atomic<bool> sent = false;
  WaitingThread ownBoost([&] {
    sendQueue.try_send("x", 1, 0);
    sent = true;
  });
  ownBoost.awaitSleep();
  const Stopwatch watch;
  EXPECT_EQ(codeOf<ipc::interprocess_exception>([&] { writer.flush_shm_buffer(60); }),
            ipc::timeout_when_locking_error);
  EXPECT_GE(watch.seconds(), 1.9);
  EXPECT_LT(watch.seconds(), 4);
  EXPECT_FALSE(sent) << "this program's own Boost has no bound";
  peer.signal(SIGCONT);
  EXPECT_EQ(peer.nextChange(), "exit 0");
  EXPECT_TRUE(ownBoost.returns());
}

TEST_F(ForeignBoost, DoesNotTakeTheAssertionHandlerAway) {
  sendQueue.try_send("x", 1, 0);
  Child server([&] {
    raise(SIGSTOP);
    receiveAndRaise(name, SIGKILL);
  });
  ASSERT_EQ(server.nextChange(), "stopped");
  const Stopwatch watch;
  ipc::error_code_t code = ipc::no_error;
  WaitingThread waiting(
      [&] { code = codeOf<ipc::lock_exception>([&] { writer.flush_shm_buffer(3); }); });
  waiting.awaitSleep();
  server.signal(SIGCONT);
  EXPECT_EQ(server.nextChange(), "signal 9");
  EXPECT_TRUE(waiting.returns());
  EXPECT_EQ(code, ipc::not_recoverable);
  EXPECT_GE(watch.seconds(), earliest(3));
  EXPECT_LT(watch.seconds(), 3 + 2 * 2);
}

}  // namespace
}  // namespace orvane::test
