#include "ox/errno_exception.hpp"

#include <gtest/gtest.h>

#include <exception>
#include <limits>
#include <memory>
#include <string>
#include <type_traits>

namespace {

static_assert(std::is_base_of_v<std::exception, Ox_ErrnoException>);
static_assert(std::is_nothrow_destructible_v<Ox_ErrnoException>);

TEST(ErrnoException, CarriesStatusMessageAndDetail) {
  const Ox_ErrnoException e(-7, "message", "detail");
  EXPECT_EQ(e.status(), -7);
  EXPECT_EQ(e.message(), "message");
  EXPECT_EQ(e.detail(), "detail");
  EXPECT_STREQ(e.what(), "message");
}

TEST(ErrnoException, ReportsItsMessageAsAStandardException) {
  try {
    throw Ox_ErrnoException(15, "Timed out", "");
  } catch (const std::exception& e) {
    EXPECT_STREQ(e.what(), "Timed out");
    return;
  }
}

TEST(ErrnoException, CopiesOutliveTheOriginal) {
  Ox_ErrnoException copy(0, "", "");
  {
    const Ox_ErrnoException original(9, std::string(100, 'm'), std::string(100, 'd'));
    copy = original;
  }
  const Ox_ErrnoException second(copy);
  copy = Ox_ErrnoException(1, "other", "");
  EXPECT_EQ(second.status(), 9);
  EXPECT_EQ(second.message(), std::string(100, 'm'));
  EXPECT_EQ(second.detail(), std::string(100, 'd'));
  EXPECT_EQ(second.what(), std::string(100, 'm'));
}

TEST(ErrnoException, CarriesAStatusOf32SignedBits) {
  for (const ox_status_t status :
       {std::numeric_limits<ox_status_t>::min(), -1, 65536, 0x7FFFFFFF}) {
    EXPECT_EQ(Ox_ErrnoException(status, "", "").status(), status);
  }
  EXPECT_EQ(std::numeric_limits<ox_status_t>::min(), -2147483648);
}

TEST(ErrnoException, KeepsZeroBytesInItsTexts) {
  const std::string message("a\0b", 3);
  const std::string detail("c\0d", 3);
  const Ox_ErrnoException e(1, message, detail);
  EXPECT_EQ(e.message(), message);
  EXPECT_EQ(e.detail(), detail);
  EXPECT_STREQ(e.what(), "a");
}

TEST(ErrnoException, TakesOverAllOfAnotherOne) {
  Ox_ErrnoException e(1, "message", "detail");
  const Ox_ErrnoException other(2, "other message", "other detail");
  e = other;
  EXPECT_EQ(e.status(), 2);
  EXPECT_EQ(e.message(), "other message");
  EXPECT_EQ(e.detail(), "other detail");
  EXPECT_STREQ(e.what(), "other message");
}

TEST(ErrnoException, KeepsItsTextsWhileItsCopiesGo) {
  const Ox_ErrnoException e(1, std::string(100, 'm'), "detail");
  const char* const what = e.what();
  { const auto copy = std::make_unique<Ox_ErrnoException>(e); }
  EXPECT_STREQ(Ox_ErrnoException(2, "another message", "").what(), "another message");
  EXPECT_EQ(std::string(what), std::string(100, 'm'));
  EXPECT_EQ(e.what(), what);
  EXPECT_EQ(std::string(what), std::string(100, 'm'));
}

}  // namespace
