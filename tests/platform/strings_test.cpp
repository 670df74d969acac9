#include "ox/strings.hpp"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <string>

namespace {

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

TEST(BoundedCopy, ReadsNoMoreOfItsSourceThanItNeeds) {
  const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  void* const mapped =
      mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(mapped, MAP_FAILED);
  char* const end = static_cast<char*>(mapped) + page;
  ASSERT_EQ(mprotect(end, page, PROT_NONE), 0);
  std::memset(end - 3, 'a', 3);  // without an end

  char field[] = "####";
  pvkstrcpy(field, end - 3, 4);
  EXPECT_STREQ(field, "aaa");
  pvkstrcpy(field, end, 1);
  EXPECT_STREQ(field, "");

  munmap(mapped, 2 * page);
}

TEST(BoundedCopy, ReadsNothingForASizeOfZero) {
  char field = '#';
  pvkstrcpy(&field, nullptr, 0);
  EXPECT_EQ(field, '#');
}

TEST(BoundedCopy, KeepsEveryByteButZero) {
  std::string source;
  for (int c = 1; c < 256; ++c) {
    source += static_cast<char>(c);
  }
  char field[256];
  pvkstrcpy(field, source.c_str(), sizeof field);
  EXPECT_EQ(std::string(field, sizeof field), source + '\0');
}

TEST(BoundedCopy, FillsALargeField) {
  std::string field(70000, '#');
  pvkstrcpy(field.data(), "abc", 69999);
  EXPECT_EQ(field, "abc" + std::string(69996, '\0') + "#");
}

}  // namespace
