#include <gtest/gtest.h>

#include <cstdlib>
#include <new>
#include <string>
#include <vector>

#include "orvane/batch.hpp"
#include "ox/log.hpp"
#include "support/recording_sink.hpp"

namespace {

constexpr std::size_t kPlenty = 1000;  // so much is always there
bool memoryIsShort = false;

}  // namespace

void* operator new(std::size_t size) {
  void* const memory = memoryIsShort && size > kPlenty ? nullptr : std::malloc(size);
  if (memory == nullptr) {
    throw std::bad_alloc();
  }
  return memory;
}
void* operator new[](std::size_t size) {
  return operator new(size);
}
void operator delete(void* memory) noexcept {
  std::free(memory);
}
void operator delete[](void* memory) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}
void operator delete[](void* memory, std::size_t) noexcept {
  std::free(memory);
}

namespace orvane::test {
namespace {

// A plain buffer for the line: a recording sink would need memory itself.
char received[2000];
void receive(ox::Kind, int, const char* text) {
  std::snprintf(received, sizeof received, "%s", text);
}

class OutOfMemory : public testing::Test {
 protected:
  OutOfMemory() { ox::setSink(receive); }
  ~OutOfMemory() override { ox::setSink(nullptr); }
};

TEST_F(OutOfMemory, LongLineIsCut) {
  const std::string text(5000, 'x');
  memoryIsShort = true;
  InfoA(0, "%s", text.c_str());
  memoryIsShort = false;
  EXPECT_EQ(std::string(received), std::string(1023, 'x'));
}

TEST_F(OutOfMemory, FormatThatCannotBeFilledInLeavesItsNote) {
  const std::string format = "%ls" + std::string(2000, 'x');
  const wchar_t invalid[] = {static_cast<wchar_t>(0x7FFFFFFF), 0};
  memoryIsShort = true;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  InfoA(0, format.c_str(), invalid);
#pragma GCC diagnostic pop
  memoryIsShort = false;
  EXPECT_STREQ(received, "(this format could not be filled in) ");
}

TEST_F(OutOfMemory, BatchIsNotMade) {
  memoryIsShort = true;
  EXPECT_THROW(ShmBatch batch(4096), std::bad_alloc);
  memoryIsShort = false;
}

}  // namespace
}  // namespace orvane::test
