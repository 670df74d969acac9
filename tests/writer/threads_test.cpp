#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "support/stream.hpp"
#include "transports.hpp"

namespace orvane::test {
namespace {

template <typename Transport>
class Threads : public testing::Test {};
TYPED_TEST_SUITE(Threads, Transports, TransportName);

TYPED_TEST(Threads, UseSeparateWritersIndependently) {
  constexpr int kRecords = 1000;
  const auto produceAndCount = [](TypeParam& stream, std::size_t& records) {
    for (int i = 0; i < kRecords; ++i) {
      stream.write("data");
      while (stream.waiting() > 0) {
        records += stream.sent().size();
      }
    }
    stream.close();
    records += stream.sent().size();
  };
  TypeParam first;
  TypeParam second;
  first.open();
  second.open();
  std::size_t firstRecords = 0;
  std::size_t secondRecords = 0;
  std::thread other(produceAndCount, std::ref(first), std::ref(firstRecords));
  produceAndCount(second, secondRecords);
  other.join();
  EXPECT_EQ(firstRecords, kRecords + 1U);
  EXPECT_EQ(secondRecords, kRecords + 1U);
}

// What several producers may do: each with its own writer on the server's one queue.
TEST(Threads, MayWriteToOneQueueThroughWritersOfTheirOwn) {
  QueuePair pair({.depth = 100});
  const auto produce = [&pair](std::uint32_t type) {
    ShmWriter writer("stream", pair.name(), 7, 0, false);
    for (int i = 0; i < 40; ++i) {
      const pvk_shm_message_t header = recordHeader(type, 0);
      writer.write_data(&header, nullptr, 7, true);
    }
  };
  std::thread other(produce, 8);
  produce(9);
  other.join();
  std::size_t counts[2] = {0, 0};
  while (pair.waiting() > 0) {
    ++counts[pair.receiveRecords().at(0).type - 8];
  }
  EXPECT_EQ(counts[0], 40U);
  EXPECT_EQ(counts[1], 40U);
}

}  // namespace
}  // namespace orvane::test
