#include "worker/guarded_buffer.hpp"

#include <gtest/gtest.h>

#include <csignal>
#include <cstring>

#include "support/child.hpp"

namespace {

using orvane::test::Child;
using orvaned::GuardedBuffer;

constexpr std::size_t kGuard = 65536;

std::string afterWritingAt(const GuardedBuffer& buffer, std::ptrdiff_t offset) {
  Child child([&] {
    signal(SIGSEGV, SIG_DFL);  // a sanitizer has its own
    buffer.data()[offset] = 1;
  });
  return child.nextChange();
}

TEST(GuardedBufferTest, CanBeWrittenFromItsFirstToItsLastByte) {
  const GuardedBuffer buffer(1048968);
  EXPECT_EQ(buffer.size(), 1048968U);
  std::memset(buffer.data(), 0xff, buffer.size());
  EXPECT_EQ(buffer.data()[1048967], 0xff);
}

TEST(GuardedBufferTest, EndsWhereMemoryWithoutAccessBegins) {
  for (const std::size_t size : {std::size_t{132}, std::size_t{4096}, std::size_t{1048968}}) {
    const GuardedBuffer buffer(size);
    const auto end = static_cast<std::ptrdiff_t>(size);
    EXPECT_EQ(afterWritingAt(buffer, end - 1), "exit 0");
    EXPECT_EQ(afterWritingAt(buffer, end), "signal 11") << size;
    EXPECT_EQ(afterWritingAt(buffer, end + static_cast<std::ptrdiff_t>(kGuard) - 1), "signal 11")
        << size;
  }
}

TEST(GuardedBufferTest, HasMemoryWithoutAccessBeforeIt) {
  const GuardedBuffer buffer(4096);
  EXPECT_EQ(afterWritingAt(buffer, -1), "signal 11");
  EXPECT_EQ(afterWritingAt(buffer, -static_cast<std::ptrdiff_t>(kGuard)), "signal 11");
}

}  // namespace
