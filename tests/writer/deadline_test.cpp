#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "support/stream.hpp"
#include "support/throws.hpp"

namespace orvane::test {
namespace {

using Seconds = std::chrono::duration<double>;

// The deadline has whole seconds, so a wait may end up to a second early. One second more than the
// timeout is allowed for a machine that is busy.
TEST(Deadline, EndsTheWaitForAFullQueue) {
  Stream stream;
  stream.pair.fill();
  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(throwsErrno(15, "Timed out after waiting 2s to send data to orvaned on stream stream",
                          [&] { stream.writer.flush_shm_buffer(2); }));
  const Seconds waited = std::chrono::steady_clock::now() - start;
  EXPECT_GE(waited.count(), 0.98);  // the clock that gives the whole seconds lags by a tick
  EXPECT_LT(waited.count(), 3.0);
}

TEST(Deadline, IsNotReachedWhenAReaderMakesRoom) {
  Stream stream;
  stream.open();
  stream.write("hello");
  stream.pair.fill();
  std::thread reader([&] { stream.pair.receive(); });
  EXPECT_NO_THROW(stream.writer.flush_shm_buffer(60));
  reader.join();
  EXPECT_EQ(stream.sent().at(0).data, bytesOf("hello"));
}

}  // namespace
}  // namespace orvane::test
