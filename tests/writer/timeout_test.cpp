#include "orvane/timeout.hpp"

#include <gtest/gtest.h>

#include "support/grouping_locale.hpp"
#include "support/recording_sink.hpp"
#include "support/throws.hpp"

namespace orvane::test {
namespace {

TEST(ValidateTimeout, AcceptsBothBounds) {
  EXPECT_NO_THROW(validateTimeout(1));
  EXPECT_NO_THROW(validateTimeout(2));
  EXPECT_NO_THROW(validateTimeout(86399));
  EXPECT_NO_THROW(validateTimeout(86400));
}

TEST(ValidateTimeout, RejectsZero) {
  EXPECT_TRUE(
      throwsErrno(9, "Invalid timeout, specified value 0 was less than minimum allowed value of 1",
                  [] { validateTimeout(0); }));
}

TEST(ValidateTimeout, RejectsMoreThanADay) {
  EXPECT_TRUE(throwsErrno(
      9, "Invalid timeout, specified value 86401 was more than maximum allowed value of 86400",
      [] { validateTimeout(86401); }));
}

TEST(ValidateTimeout, PrintsTheLargestValueUnsigned) {
  EXPECT_TRUE(throwsErrno(
      9, "Invalid timeout, specified value 4294967295 was more than maximum allowed value of 86400",
      [] { validateTimeout(4294967295U); }));
}

TEST(ValidateTimeout, WritesPlainDecimalsUnderAGroupingGlobalLocale) {
  const GlobalGroupingLocale grouping;
  EXPECT_TRUE(throwsErrno(
      9, "Invalid timeout, specified value 86401 was more than maximum allowed value of 86400",
      [] { validateTimeout(86401); }));
}

TEST(ValidateTimeout, LogsNothing) {
  RecordingSink sink(RecordingSink::Tracing::on);
  EXPECT_ANY_THROW(validateTimeout(0));
  EXPECT_NO_THROW(validateTimeout(1));
  EXPECT_EQ(sink.take(), std::vector<Line>());
}

TEST(TimeoutBounds, AreOneSecondAndOneDay) {
  EXPECT_EQ(kMinTimeoutSeconds, 1U);
  EXPECT_EQ(kMaxTimeoutSeconds, 86400U);
}

}  // namespace
}  // namespace orvane::test
