#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <queue>
#include <sstream>
#include <string>

#include "orvane/batch_view.hpp"
#include "orvane/lease.hpp"
#include "orvane/logger.hpp"
#include "orvane/server_info.hpp"
#include "orvane/unique_id_generator.hpp"
#include "ox/errno_exception.hpp"
#include "ox/log.hpp"
#include "ox/trace.hpp"
#include "support/fake_server.hpp"
#include "support/recording_sink.hpp"
#include "support/stream.hpp"

namespace {

std::atomic<bool> watching = false;
std::atomic<int> reads = 0;
char nameRead[100] = {};

// From orvane's own libraries at any time, also while they are loaded; from anybody while a test
// watches.
void note(const char* name, void* caller) {
  Dl_info info;
  const bool isOurs = dladdr(caller, &info) != 0 && info.dli_fname != nullptr &&
                      std::strstr(info.dli_fname, "/liborvane") != nullptr;
  if (isOurs || watching) {
    ++reads;
    std::strncpy(nameRead, name, sizeof nameRead - 1);
  }
}

char* valueOf(const char* name) {
  const std::size_t length = std::strlen(name);
  for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
    if (std::strncmp(*entry, name, length) == 0 && (*entry)[length] == '=') {
      return *entry + length + 1;
    }
  }
  return nullptr;
}

}  // namespace

// These take the place of the C library's for everything that this executable loads.
#define REPLACED extern "C" __attribute__((visibility("default")))

REPLACED char* getenv(const char* name) noexcept {
  note(name, __builtin_return_address(0));
  return valueOf(name);
}

REPLACED char* secure_getenv(const char* name) noexcept {
  note(name, __builtin_return_address(0));
  return valueOf(name);
}

namespace orvane::test {
namespace {

void usePlatform() {
  ox::setTracing(true);
  InfoA(1, "info %d", 1);
  AuthA(2, "auth");
  WarningA(3, "warning");
  ErrorA(4, "error %s", std::string(2000, 'x').c_str());
  __Trace("trace");
  { const AutoTrace scope("operation"); }
  ox::setTracing(false);
}

void useServersClasses() {
  const server::Logger logger("name");
  logger.log(server::LEVEL_ERROR, "function", 1, "%.3f %ls", 1.5, L"wide");
  ox::setTracing(true);
  logger.logTrace("function", "%d", 1);
  ox::setTracing(false);
  ServerInfo info("s", "u", "p", "a", "c", "r", "k");
  info.setFlags(1);
  std::ostringstream text;
  text << info;
  UniqueIdGenerator::getInstance().generateId("id");
}

void useWriter(const QueuePair& pair) {
  ShmWriter writer("stream", pair.name(), 5, 5, false);
  writer.open();
  writer.setSegmentAlg(kOrvaneSegUnbounded, 1, 2, 3);
  const unsigned char data[] = {1, 2, 3};
  writer.writeSegment(data, sizeof data);
  writer.endSegment();
  writer.flush_shm_buffer(1);
  writer.stop(true);
  writer.close();
  EXPECT_THROW(writer.writeSegment(data, sizeof data), Ox_ErrnoException);
  EXPECT_ANY_THROW(ShmWriter("none", pair.name() + "none", 5, 5, true));
}

void useBatch() {
  ShmBatch batch(1024);
  batch.pushBack(ShmBatch::Entry(pvk_shm_message_t(), nullptr));
  std::queue<ShmBatch::Entry> entries;
  ShmBatch::getEntriesFromBuffer(entries, batch.getRaw(), batch.getRawSize());
  std::ostringstream text;
  text << batch << entries.front().header;
  EXPECT_EQ(BatchView(batch.getRaw(), batch.getRawSize()).size(), 1U);
  EXPECT_THROW(batch.getEntry(7), Ox_ErrnoException);
  pvk_shm_response_t().assign(1, "text");
}

TEST(Environment, IsNeverRead) {
  FakeServer server;
  const std::string receipt = "receipt stream=x records=1 bytes=2 segments=1 end=closed";
  server.serve({.says = {"lease q", receipt, "failed 1003 full"}});
  const QueuePair pair;
  const RecordingSink sink;
  {
    watching = true;
    usePlatform();
    useServersClasses();
    useWriter(pair);
    useBatch();
    Lease lease(server.path(), 60);
    EXPECT_EQ(textOf(lease.receipt(60)), receipt);
    EXPECT_THROW(lease.receipt(60), Ox_ErrnoException);
    EXPECT_TRUE(lease.alive());
    watching = false;
  }
  EXPECT_EQ(reads, 0) << nameRead << " was read";
}

TEST(Environment, IsSeenWhenItIsRead) {
  const int before = reads;
  watching = true;
  EXPECT_NE(std::getenv("PATH"), nullptr);
  watching = false;
  EXPECT_EQ(reads, before + 1);
  EXPECT_STREQ(nameRead, "PATH");
  reads = before;
}

// Also to standard error, which no sink has been put before.
TEST(Environment, IsNotReadForALineOnStandardError) {
  testing::internal::CaptureStderr();
  watching = true;
  usePlatform();
  watching = false;
  EXPECT_NE(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(reads, 0) << nameRead << " was read";
}

}  // namespace
}  // namespace orvane::test
