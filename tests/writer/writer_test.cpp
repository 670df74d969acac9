#include <gtest/gtest.h>
#include <sys/stat.h>

#include <boost/interprocess/exceptions.hpp>

#include "support/recording_sink.hpp"
#include "support/stream.hpp"
#include "support/throws.hpp"
#include "transports.hpp"

namespace orvane::test {
namespace {

namespace ipc = boost::interprocess;
using Tracing = RecordingSink::Tracing;

constexpr const char* kTooShort =
    "Invalid timeout, specified value 0 was less than minimum allowed value of 1";
constexpr const char* kTooLong =
    "Invalid timeout, specified value 86401 was more than maximum allowed value of 86400";

ipc::error_code_t errorOfBuildingOn(const std::string& queue) {
  try {
    const ShmWriter writer("stream", queue, 7, 0, false);
  } catch (const ipc::interprocess_exception& e) {
    return e.get_error_code();
  }
  return ipc::no_error;
}

template <typename Transport>
class Construction : public testing::Test {};
TYPED_TEST_SUITE(Construction, Transports, TransportName);

TYPED_TEST(Construction, SendsNothing) {
  TypeParam stream;
  EXPECT_EQ(stream.waiting(), 0U);
}

TEST(Construction, AttachesToBothQueuesOnceAndDetachesWithoutRemovingThem) {
  QueuePair pair;
  EXPECT_EQ(mappingsOf(pair.name()), 1U);  // the fixture's own
  EXPECT_EQ(mappingsOf(pair.responseName()), 1U);
  {
    const ShmWriter writer("stream", pair.name(), 7, 0, false);
    EXPECT_EQ(mappingsOf(pair.name()), 2U);
    EXPECT_EQ(mappingsOf(pair.responseName()), 2U);
  }
  EXPECT_EQ(mappingsOf(pair.name()), 1U);
  EXPECT_EQ(mappingsOf(pair.responseName()), 1U);
  struct stat unused = {};
  EXPECT_EQ(stat(("/dev/shm/" + pair.name()).c_str(), &unused), 0);
  EXPECT_EQ(stat(("/dev/shm/" + pair.responseName()).c_str(), &unused), 0);
}

TEST(Construction, ChecksTheTimeoutBeforeItLooksForTheQueues) {
  const std::string missing = uniqueQueueName();
  EXPECT_TRUE(throwsErrno(9, kTooShort, [&] { ShmWriter("stream", missing, 0, 0, false); }));
  EXPECT_TRUE(throwsErrno(9, kTooLong, [&] { ShmWriter("stream", missing, 86401, 0, false); }));
}

TEST(Construction, RejectsATimeoutOnExistingQueuesToo) {
  const QueuePair pair;
  EXPECT_TRUE(throwsErrno(9, kTooShort, [&] { ShmWriter("stream", pair.name(), 0, 0, false); }));
  EXPECT_TRUE(throwsErrno(9, kTooLong, [&] { ShmWriter("stream", pair.name(), 86401, 0, false); }));
  EXPECT_EQ(mappingsOf(pair.name()), 1U);
}

TYPED_TEST(Construction, RejectsATimeoutOutsideOfADay) {
  const TypeParam stream;
  EXPECT_TRUE(throwsErrno(9, kTooShort, [&] { stream.another(0); }));
  EXPECT_TRUE(throwsErrno(9, kTooLong, [&] { stream.another(86401); }));
}

TYPED_TEST(Construction, AcceptsTimeoutsAtBothBounds) {
  const TypeParam stream;
  EXPECT_NO_THROW(stream.another(1));
  EXPECT_NO_THROW(stream.another(86400));
}

TYPED_TEST(Construction, AcceptsAnyStopTimeout) {
  const TypeParam stream;
  for (unsigned int stopTimeout : {0U, 1U, 86400U, 86401U, 4294967295U}) {
    EXPECT_NO_THROW(stream.another(7, stopTimeout)) << stopTimeout;
  }
}

TEST(Construction, PassesOnThatTheSendQueueIsMissing) {
  RecordingSink sink(Tracing::on);
  EXPECT_EQ(errorOfBuildingOn(uniqueQueueName()), ipc::not_found_error);
  EXPECT_EQ(sink.take(),
            (std::vector{entered("ShmWriter"), traced("ShmWriter: opening send message queue"),
                         left("ShmWriter")}));
}

TEST(Construction, CreatesNoMissingQueue) {
  const std::string missing = uniqueQueueName();
  EXPECT_EQ(errorOfBuildingOn(missing), ipc::not_found_error);
  EXPECT_FALSE(ipc::message_queue::remove(missing.c_str()));
  EXPECT_FALSE(ipc::message_queue::remove((missing + "Response").c_str()));
}

TEST(Construction, DetachesFromTheSendQueueWhenTheResponseQueueIsMissing) {
  const QueueName name(uniqueQueueName());
  const ipc::message_queue sendQueue(ipc::create_only, name.text().c_str(), 1, 1024);
  RecordingSink sink(Tracing::on);
  EXPECT_EQ(errorOfBuildingOn(name.text()), ipc::not_found_error);
  EXPECT_EQ(sink.take(),
            (std::vector{entered("ShmWriter"), traced("ShmWriter: opening send message queue"),
                         traced("ShmWriter: opening message response queue"), left("ShmWriter")}));
  EXPECT_EQ(mappingsOf(name.text()), 1U);
}

TEST(Construction, RejectsASendQueueTooSmallForAnyBatch) {
  const QueuePair pair({.messageSize = 7});
  RecordingSink sink(Tracing::on);
  EXPECT_TRUE(throwsErrno(
      9,
      "Buffer size 7 is invalid because it is smaller than the minimum required buffer size of 8",
      [&] { ShmWriter("stream", pair.name(), 7, 0, false); }));
  EXPECT_EQ(sink.take(),
            (std::vector{entered("ShmWriter"), traced("ShmWriter: opening send message queue"),
                         traced("ShmWriter: opening message response queue"),
                         traced("ShmWriter: creating shm batch buffer"),
                         traced("ShmBatch: bufferSize=7"), left("ShmWriter")}));
  EXPECT_EQ(mappingsOf(pair.name()), 1U);
  EXPECT_EQ(mappingsOf(pair.responseName()), 1U);
}

TEST(Construction, AcceptsASendQueueOfEightBytes) {
  Stream stream({.geometry = {.messageSize = 8}});
  EXPECT_EQ(stream.flushed(), std::vector<Record>());
}

TEST(Construction, TracesItsStepsInOrder) {
  const QueuePair pair;
  RecordingSink sink(Tracing::on);
  const ShmWriter writer("stream", pair.name(), 7, 0, false);
  EXPECT_EQ(sink.take(),
            (std::vector{entered("ShmWriter"), traced("ShmWriter: opening send message queue"),
                         traced("ShmWriter: opening message response queue"),
                         traced("ShmWriter: creating shm batch buffer"),
                         traced("ShmBatch: bufferSize=1024"), left("ShmWriter")}));
}

TEST(Construction, TracesNothingBeforeAnInvalidTimeout) {
  RecordingSink sink(Tracing::on);
  EXPECT_ANY_THROW(ShmWriter("stream", "unused", 0, 0, false));
  EXPECT_EQ(sink.take(), (std::vector{entered("ShmWriter"), left("ShmWriter")}));
}

TEST(Construction, MakesTheBatchAsLargeAsTheLargestMessage) {
  Stream stream({.geometry = {.messageSize = 1000}});
  const Bytes data(944, 'x');  // 8 + 48 + 944
  const pvk_shm_message_t header = recordHeader(9, 944);
  stream.writer.write_data(&header, data.data(), 0, false);
  EXPECT_EQ(stream.pair.waiting(), 0U);
  stream.writer.flush_shm_buffer(0);
  EXPECT_EQ(stream.pair.receive().bytes.size(), 1000U);
  const pvk_shm_message_t larger = recordHeader(9, 945);
  EXPECT_ANY_THROW(stream.writer.write_data(&larger, Bytes(945).data(), 0, false));
}

TEST(Construction, CopiesItsNames) {
  QueuePair pair;
  std::string stream = "stream";
  std::string queue = pair.name();
  ShmWriter writer(stream, queue, 7, 0, false);
  stream = "x";
  queue = "y";
  pair.fill();
  EXPECT_TRUE(throwsErrno(15, "Timed out after waiting 0s to send data to orvaned on stream stream",
                          [&] { writer.flush_shm_buffer(0); }));
}

}  // namespace
}  // namespace orvane::test
