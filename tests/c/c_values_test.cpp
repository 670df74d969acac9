// The C interface beside its streams: receipts, batches, statuses.

#include <gtest/gtest.h>

#include <cstring>
#include <new>
#include <stdexcept>
#include <string>

#include "c/call.hpp"
#include "orvane/orvane.h"
#include "stream/stream_server.hpp"
#include "support/wire.hpp"

namespace orvane::test {
namespace {

TEST(CReceipt, IsReadAndWritten) {
  const std::string line = receiptOf(12, 1048576, 2, "cut-off");
  orvane_receipt receipt;
  orvane_receipt_init(&receipt, sizeof receipt);
  EXPECT_EQ(orvane_receipt_parse(line.c_str(), &receipt), 0);
  EXPECT_EQ(receipt.records, 12U);
  EXPECT_EQ(receipt.end, ORVANE_END_CUT_OFF);
  char text[200];
  EXPECT_EQ(orvane_receipt_text(&receipt, text, sizeof text), static_cast<int>(line.size()));
  EXPECT_EQ(text, line);
  EXPECT_EQ(orvane_receipt_text(&receipt, text, 8), static_cast<int>(line.size()));
  EXPECT_STREQ(text, "receipt");
  EXPECT_EQ(orvane_receipt_parse("nonsense", &receipt), ORVANE_INVALID_ARGUMENT);
  EXPECT_EQ(orvane_receipt_parse(nullptr, &receipt), ORVANE_INVALID_ARGUMENT);
  receipt.end = 4;
  EXPECT_EQ(orvane_receipt_text(&receipt, text, sizeof text), -1);
  EXPECT_EQ(orvane_receipt_text(nullptr, text, sizeof text), -1);
}

TEST(CBatch, IsReadRecordByRecord) {
  const Bytes bytes = BatchBytes()
                          .records({{.type = 1,
                                     .seqNo = 7,
                                     .segmentNo = 3,
                                     .segmentDone = 0,
                                     .segAlg = 1,
                                     .segParam1 = 4,
                                     .segParam2 = 5,
                                     .segParam3 = 6,
                                     .data = bytesOf("hello")},
                                    {.type = 3, .seqNo = 8}})
                          .bytes();
  orvane_batch* batch = nullptr;
  ASSERT_EQ(orvane_batch_open(bytes.data(), bytes.size(), &batch), 0);
  EXPECT_EQ(orvane_batch_count(batch), 2U);
  orvane_record record;
  orvane_record_init(&record, sizeof record);
  ASSERT_EQ(orvane_batch_next(batch, &record), 1);
  EXPECT_EQ(record.type, 1U);
  EXPECT_EQ(record.sequence, 7U);
  EXPECT_EQ(record.segment, 3U);
  EXPECT_EQ(record.segment_done, 0U);
  EXPECT_EQ(record.segment_state, 1U);
  EXPECT_EQ(record.parameters[0], 4U);
  EXPECT_EQ(record.parameters[1], 5U);
  EXPECT_EQ(record.parameters[2], 6U);
  ASSERT_EQ(record.data_size, 5U);
  EXPECT_EQ(std::memcmp(record.data, "hello", 5), 0);
  ASSERT_EQ(orvane_batch_next(batch, &record), 1);
  EXPECT_EQ(record.type, 3U);
  EXPECT_EQ(record.data_size, 0U);
  EXPECT_EQ(orvane_batch_next(batch, &record), 0);
  orvane_batch_close(batch);
}

TEST(CBatch, SaysWhyItIsNone) {
  orvane_batch* batch = nullptr;
  EXPECT_EQ(orvane_batch_open("rubbish!", 8, &batch), ORVANE_CORRUPT);
  EXPECT_STREQ(orvane_batch_message(batch),
               "Could not deserialize ShmBatch::MetaData from buffer because the magic value "
               "1920295522 is corrupt (expected=4278251025)");
  orvane_record record;
  EXPECT_EQ(orvane_batch_next(batch, orvane_record_init(&record, sizeof record)), 0);
  EXPECT_EQ(orvane_batch_count(batch), 0U);
  orvane_batch_close(batch);
  EXPECT_EQ(orvane_batch_open(nullptr, 8, &batch), ORVANE_INVALID_ARGUMENT);
  EXPECT_STREQ(orvane_batch_message(batch), "The pointer to the batch is NULL");
  orvane_batch_close(batch);
  EXPECT_EQ(orvane_batch_open("", 0, nullptr), ORVANE_INVALID_ARGUMENT);
}

// No exception leaves a call.
TEST(CCall, HasAStatusForEachException) {
  c::Failure failure;
  const auto fails = [&](int status, const std::string& message, const auto& call) {
    return statusOf(failure, call) == status && failure.status() == status &&
           failure.message() == message;
  };
  EXPECT_TRUE(fails(7, "lost", [&]() -> int { throw StreamError(7, "lost", Certainty::stored); }));
  EXPECT_EQ(failure.certainty(), Certainty::stored);
  EXPECT_TRUE(fails(8, "bad", [&]() -> int { throw Ox_ErrnoException(8, "bad", ""); }));
  EXPECT_TRUE(fails(ORVANE_NO_MEMORY, "There is not enough memory",
                    [&]() -> int { throw std::bad_alloc(); }));
  EXPECT_TRUE(fails(ORVANE_INTERNAL, "odd", [&]() -> int { throw std::logic_error("odd"); }));
  EXPECT_TRUE(fails(ORVANE_INTERNAL, "An error of orvane itself", [&]() -> int { throw 7; }));
  EXPECT_EQ(failure.certainty(), Certainty::unknown);
}

TEST(CCall, CutsALongMessage) {
  c::Failure failure;
  failure.set(1, std::string(5000, 'x').c_str(), Certainty::unknown);
  EXPECT_EQ(failure.message(), std::string(1023, 'x'));
}

TEST(CStatus, HasAText) {
  EXPECT_STREQ(orvane_status_text(0), "success");
  EXPECT_STREQ(orvane_status_text(903), "no memory");
  EXPECT_STREQ(orvane_status_text(1003), "store failed");
  EXPECT_STREQ(orvane_status_text(5), "unknown status");
  EXPECT_STREQ(orvane_version(), ORVANE_VERSION);
}

}  // namespace
}  // namespace orvane::test
