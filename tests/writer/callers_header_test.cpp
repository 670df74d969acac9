#include <gtest/gtest.h>

#include "replaced_log.hpp"
#include "support/stream.hpp"
#include "support/throws.hpp"

namespace orvane::test {
namespace {

// The caller's header changes while the batch is flushed for the record's room. The record is the
// one that was handed over.
class CallersHeader : public testing::Test {
 protected:
  CallersHeader() {
    stream.open();
    stream.write(std::string(968, 'x'));
    header.type = 5;
    header.len = 3;
    header.seqNo = 11;
    header.segmentNo = 12;
    header.segmentDone = 0;
    header.segAlg = 13;
    header.segParam1 = 14;
    header.segParam2 = 15;
    header.segParam3 = 16;
    header.magic = 17;
  }

  void write(bool flush) {
    const ReplacedLog log([this](const std::string& format) {
      if (format == "%s: Sending shm batch of %u") {
        header = duringTheFlush;
      }
    });
    stream.writer.write_data(&header, bytesOf("abcd").data(), 0, flush);
  }

  const Record handedOver{.type = 5,
                          .seqNo = 11,
                          .segmentNo = 12,
                          .segmentDone = 0,
                          .segAlg = 13,
                          .segParam1 = 14,
                          .segParam2 = 15,
                          .segParam3 = 16,
                          .magic = 17,
                          .data = bytesOf("abc")};
  Stream stream;
  pvk_shm_message_t header;
  pvk_shm_message_t duringTheFlush = recordHeader(2, 900, 1);
};

TEST_F(CallersHeader, IsReadBeforeTheFlushThatMakesRoom) {
  write(false);
  EXPECT_EQ(stream.sent().size(), 1U);
  EXPECT_EQ(stream.flushed(), std::vector<Record>{handedOver});
}

TEST_F(CallersHeader, IsReadBeforeBothFlushesOfACall) {
  write(true);
  EXPECT_EQ(stream.sent().size(), 1U);
  EXPECT_EQ(stream.sent(), std::vector<Record>{handedOver});
}

TEST_F(CallersHeader, TellsTheTypeThatMakesAnEndRedundantAsItWasHandedOver) {
  header.type = 2;
  duringTheFlush = recordHeader(9, 0);
  write(false);
  stream.writer.endSegment();
  stream.pair.discardAll();
  EXPECT_EQ(stream.flushed().size(), 1U) << "the record was an end";
}

TEST_F(CallersHeader, TellsTheTypeThatLetsAnEndFollowAsItWasHandedOver) {
  write(false);
  stream.writer.endSegment();
  stream.pair.discardAll();
  EXPECT_EQ(stream.flushed().size(), 2U) << "the record and its end";
}

TEST_F(CallersHeader, IsInTheTextOfARecordThatDoesNotFitAsItWasHandedOver) {
  header.len = 969;
  EXPECT_TRUE(throwsErrno(89,
                          "Could not fit header (type=5) with data length 969 into the batch, even "
                          "after batch has been flushed",
                          [&] { write(false); }));
  EXPECT_EQ(stream.sent().size(), 1U);
  EXPECT_EQ(stream.flushed(), std::vector<Record>());
}

}  // namespace
}  // namespace orvane::test
