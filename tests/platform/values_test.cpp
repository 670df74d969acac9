#include <gtest/gtest.h>

#include <cstring>
#include <exception>
#include <string>
#include <type_traits>

#include "ox/errno_exception.hpp"
#include "ox/strings.hpp"

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

// The bytes of a field of `size` that stands between two guards.
std::string copied(const char* source, std::size_t size) {
  std::string field(10, '#');
  pvkstrcpy(field.data() + 1, source, size);
  return field;
}

TEST(BoundedCopy, OfSizeZeroWritesNothing) {
  EXPECT_EQ(copied("abc", 0), "##########");
}

TEST(BoundedCopy, OfSizeOneOnlyTerminates) {
  EXPECT_EQ(copied("abc", 1), std::string("#\0########", 10));
}

TEST(BoundedCopy, KeepsATextThatFitsExactly) {
  EXPECT_EQ(copied("abc", 4), std::string("#abc\0#####", 10));
}

TEST(BoundedCopy, CutsATextThatIsOneTooLong) {
  EXPECT_EQ(copied("abcd", 4), std::string("#abc\0#####", 10));
}

TEST(BoundedCopy, FillsTheRestWithZeros) {
  EXPECT_EQ(copied("ab", 8), std::string("#ab\0\0\0\0\0\0#", 10));
  EXPECT_EQ(copied("", 4), std::string("#\0\0\0\0#####", 10));
}

}  // namespace
