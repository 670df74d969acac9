// Every allocation of the C interface fails once.

#include <set>

#include "orvane/orvane.h"
#include "stream/stream_server.hpp"
#include "support/allocations.hpp"

namespace orvane::test {
namespace {

// Makes calls of which one allocation fails: the one with this number, counted over all calls.
class Starving {
 public:
  explicit Starving(std::size_t number) : left(number) {}

  bool hasFailed() const { return left == 0; }

  template <typename Call>
  auto operator()(const Call& call) {
    const Allocations allocations([this](std::size_t) -> void* {
      if (left > 0 && --left == 0) {
        throw std::bad_alloc();
      }
      return nullptr;
    });
    return call();
  }

 private:
  std::size_t left;
};

template <typename Memory>
class COutOfMemory : public testing::Test {};
TYPED_TEST_SUITE(COutOfMemory, Memories, MemoryName);

// Returns the statuses of all calls of a stream's life.
template <typename Memory>
std::set<int> liveWith(Starving& starving) {
  StreamServer<Memory> server;
  const StreamOptions given = server.options(1);
  orvane_stream_options options;
  orvane_stream_options_init(&options, sizeof options);
  options.socket = given.socket.c_str();
  options.label = "a label that is longer than a short string is";
  options.timeout = 1;
  options.transport = static_cast<int>(given.transport);
  options.ring_bytes = given.ringBytes;
  orvane_stream* stream = nullptr;
  std::set<int> statuses;
  const auto call = [&](const auto& made) { statuses.insert(starving(made)); };
  const std::string data = content(300000);

  call([&] { return orvane_stream_open(&options, &stream); });
  if (stream == nullptr) {
    EXPECT_EQ(statuses, std::set<int>{ORVANE_NO_MEMORY});
    EXPECT_STREQ(orvane_stream_message(stream), "There is not enough memory");
    server.end();
    return statuses;
  }
  if (orvane_stream_status(stream) == 0) {
    call([&] { return orvane_stream_write(stream, data.data(), data.size(), nullptr); });
    call([&] { return orvane_stream_write(stream, nullptr, 1, nullptr); });
    call([&] { return orvane_stream_fd(stream) >= 0 ? 0 : orvane_stream_status(stream); });
    call([&] { return orvane_stream_flush(stream); });
    call([&] { return orvane_stream_wait(stream, 0); });
    call([&] { return orvane_stream_write_many(stream, nullptr, 1, nullptr); });
    call([&] { return orvane_stream_end_segment(stream); });
    call([&] { return orvane_stream_try_finish(stream, nullptr); });
    const std::size_t bytes = dataOf(server.receive()).size();
    server.say(receiptOf(3, bytes, 1));
    orvane_receipt receipt;
    orvane_receipt_init(&receipt, sizeof receipt);
    call([&] { return orvane_stream_finish(stream, &receipt); });
    if (statuses.count(ORVANE_NO_MEMORY) == 0) {
      EXPECT_EQ(receipt.bytes, data.size());
    }
    call([&] { return orvane_stream_write(stream, "x", 1, nullptr); });
  } else {
    EXPECT_STREQ(orvane_stream_message(stream), "There is not enough memory");
    EXPECT_EQ(orvane_stream_status(stream), ORVANE_NO_MEMORY);
  }
  starving([&] { orvane_stream_close(stream); });
  return statuses;
}

TYPED_TEST(COutOfMemory, IsAStatusAtEveryAllocation) {
  std::size_t number = 0;
  for (bool hasFailed = true; hasFailed;) {
    Starving starving(++number);
    const std::set<int> statuses = liveWith<TypeParam>(starving);
    hasFailed = starving.hasFailed();
    for (const int status : statuses) {
      EXPECT_TRUE(status == ORVANE_OK || status == ORVANE_NO_MEMORY || status == ORVANE_TIMED_OUT ||
                  status == ORVANE_INVALID_ARGUMENT || status == ORVANE_NOT_OPEN)
          << "status " << status << " at allocation " << number;
    }
  }
  EXPECT_GT(number, 10U);
}

// Of receipts and batches.
TEST(COutOfMemoryOfValues, IsAStatusAtEveryAllocation) {
  const std::string line =
      "receipt stream=" + std::string(60, 'x') + " records=1 bytes=2 segments=1 end=closed";
  std::size_t number = 0;
  for (bool hasFailed = true; hasFailed;) {
    Starving starving(++number);
    orvane_batch* batch = nullptr;
    const int opened = starving([&] { return orvane_batch_open("rubbish!", 8, &batch); });
    EXPECT_TRUE(opened == ORVANE_CORRUPT || opened == ORVANE_NO_MEMORY) << opened;
    EXPECT_EQ(std::string(orvane_batch_message(batch)) == "There is not enough memory",
              opened == ORVANE_NO_MEMORY);
    orvane_batch_close(batch);

    orvane_receipt receipt;
    orvane_receipt_init(&receipt, sizeof receipt);
    const int parsed = starving([&] { return orvane_receipt_parse(line.c_str(), &receipt); });
    EXPECT_TRUE(parsed == ORVANE_OK || parsed == ORVANE_NO_MEMORY) << parsed;
    EXPECT_EQ(receipt.records, parsed == ORVANE_OK ? 1U : 0U);
    char text[200];
    const int length = starving([&] { return orvane_receipt_text(&receipt, text, sizeof text); });
    EXPECT_TRUE(length == -1 || length > 0) << length;
    hasFailed = starving.hasFailed();
  }
  EXPECT_GT(number, 4U);
}

}  // namespace
}  // namespace orvane::test
