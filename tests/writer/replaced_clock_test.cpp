#include "replaced_clock.hpp"

#include <gtest/gtest.h>

#include <cstdlib>
#include <limits>
#include <stdexcept>

#include "support/grouping_locale.hpp"
#include "support/stream.hpp"
#include "support/throws.hpp"

namespace orvane::test {
namespace {

class ReplacedClock : public testing::Test {
 protected:
  ReplacedClock() { stream.pair.fill(); }
  ~ReplacedClock() override { setClock(std::nullopt); }

  Stream stream;
};

TEST_F(ReplacedClock, IsTheOneThatTheDeadlineIsTakenFrom) {
  setClock(realTime() - 3600);
  EXPECT_TRUE(throwsErrno(15,
                          "Timed out after waiting 3600s to send data to orvaned on stream stream",
                          [&] { stream.writer.flush_shm_buffer(3600); }));
}

TEST_F(ReplacedClock, IsReadInUniversalTimeWhereverTheProcessLives) {
  setenv("TZ", "XYZ-10", 1);  // ten hours ahead: as local time the deadline would still be far off
  tzset();
  setClock(realTime() - 3600);
  EXPECT_TRUE(throwsErrno(15,
                          "Timed out after waiting 3600s to send data to orvaned on stream stream",
                          [&] { stream.writer.flush_shm_buffer(3600); }));
  unsetenv("TZ");
  tzset();
}

TEST_F(ReplacedClock, LetsTheTimeOutTextBePlainDecimalUnderAGroupingGlobalLocale) {
  const GlobalGroupingLocale grouping;
  setClock(realTime() - 86400);
  EXPECT_TRUE(throwsErrno(15,
                          "Timed out after waiting 86400s to send data to orvaned on stream stream",
                          [&] { stream.writer.flush_shm_buffer(86400); }));
}

TEST_F(ReplacedClock, IsReadAtEachFlush) {
  setClock(realTime() - 100);
  EXPECT_ANY_THROW(stream.writer.flush_shm_buffer(100));
  stream.pair.discardAll();
  setClock(realTime() + 100);
  EXPECT_NO_THROW(stream.writer.flush_shm_buffer(0));
}

TEST_F(ReplacedClock, ThatCannotBeConvertedFailsTheFlushAndKeepsTheBatch) {
  stream.pair.discardAll();
  const pvk_shm_message_t header = recordHeader(9, 0);
  stream.writer.write_data(&header, nullptr, 0, false);
  setClock(std::numeric_limits<std::time_t>::max());
  try {
    stream.writer.flush_shm_buffer(0);
    ADD_FAILURE() << "nothing was thrown";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "could not convert calendar time to UTC time");
  }
  EXPECT_EQ(stream.pair.waiting(), 0U);
  setClock(std::nullopt);
  EXPECT_EQ(stream.flushed(), (std::vector<Record>{{.type = 9}}));
}

}  // namespace
}  // namespace orvane::test
