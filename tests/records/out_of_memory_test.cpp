#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "orvane/batch.hpp"
#include "orvane/batch_view.hpp"
#include "orvane/logger.hpp"
#include "orvane/server_info.hpp"
#include "orvane/unique_id_generator.hpp"
#include "ox/errno_exception.hpp"
#include "ox/log.hpp"
#include "support/recording_sink.hpp"

namespace {

std::size_t plenty = 1000;  // so much is there even when memory is short
bool memoryIsShort = false;
int allocations = 0;
bool sevenBytesWereAsked = false;

}  // namespace

// g++ sees one half of the pair inlined and not the other.
#ifndef __clang__
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif

void* operator new(std::size_t size) {
  ++allocations;
  sevenBytesWereAsked = sevenBytesWereAsked || size == 7;
  void* const memory = memoryIsShort && size > plenty ? nullptr : std::malloc(size);
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

TEST_F(OutOfMemory, BatchThatIsTooSmallAsksForNone) {
  sevenBytesWereAsked = false;
  EXPECT_THROW(ShmBatch batch(7), Ox_ErrnoException);
  EXPECT_FALSE(sevenBytesWereAsked);
}

TEST_F(OutOfMemory, MessageOfAFailureIsNotCutShort) {
  plenty = 100;
  memoryIsShort = true;
  EXPECT_THROW(ShmBatch::validBufferSizeAssert(4), std::bad_alloc);
  memoryIsShort = false;
  plenty = 1000;
}

TEST_F(OutOfMemory, IdIsNotCutShortAndItsNumberIsNotUsedUp) {
  UniqueIdGenerator ids;
  const std::string prefix(3000, 'p');
  memoryIsShort = true;
  EXPECT_THROW(ids.generateId(prefix), std::bad_alloc);
  memoryIsShort = false;
  EXPECT_EQ(ids.generateId("p"), "p_0");  // and the lock is free
}

TEST_F(OutOfMemory, LoggersLineIsNotCutShort) {
  const std::string message(3000, 'm');
  const server::Logger logger("name");
  std::strcpy(received, "nothing");
  memoryIsShort = true;
  EXPECT_THROW(logger.log(server::LEVEL_INFO, "f", 0, "%s", message.c_str()), std::bad_alloc);
  memoryIsShort = false;
  EXPECT_STREQ(received, "nothing");
}

TEST_F(OutOfMemory, ServerInfoIsAsItWasBefore) {
  ServerInfo info("server", "user", "password", "cfg", "route", "recommended", "keys");
  const ServerInfo before = info;
  const std::string tooLong(3000, 'x');
  const ServerInfo other("other", "other", "other", "other", "other", "other", tooLong);
  memoryIsShort = true;
  EXPECT_THROW(info = other, std::bad_alloc);
  EXPECT_THROW(info.setClusterName(tooLong), std::bad_alloc);
  memoryIsShort = false;
  EXPECT_TRUE(info == before);
}

TEST(NoAllocation, InAppendingClearingAndReadingABatch) {
  ShmBatch batch(1024);
  pvk_shm_message_t header;
  const unsigned char data[40] = {};
  header.len = sizeof data;
  std::uint64_t sum = 0;
  const int before = allocations;
  for (int round = 0; round < 2; ++round) {
    batch.clear();
    while (batch.canStore(ShmBatch::Entry(header, data))) {
      header.seqNo += 1;
      batch.pushBack(ShmBatch::Entry(header, data));
    }
    for (const ShmBatch::Entry& entry : BatchView(batch.getRaw(), batch.getRawSize())) {
      sum += entry.header.seqNo;
    }
    sum += batch.getEntry(3).header.seqNo;
  }
  EXPECT_EQ(allocations, before);
  EXPECT_GT(sum, 0U);
}

TEST(NoAllocation, InCopyingAnException) {
  const Ox_ErrnoException original(1, std::string(3000, 'm'), std::string(3000, 'd'));
  const int before = allocations;
  const Ox_ErrnoException copy(original);  // NOLINT(performance-unnecessary-copy-initialization)
  EXPECT_EQ(allocations, before);
  EXPECT_EQ(copy.message(), std::string(3000, 'm'));
  EXPECT_EQ(copy.detail(), std::string(3000, 'd'));
  EXPECT_EQ(copy.status(), 1);
}

}  // namespace
}  // namespace orvane::test
