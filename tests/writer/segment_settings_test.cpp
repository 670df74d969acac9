#include <gtest/gtest.h>

#include "support/stream.hpp"
#include "transports.hpp"

namespace orvane::test {
namespace {

// The state and the parameters of segments are the writer's until they are set again.
void set(ChannelWriter& writer) {
  writer.setSegmentAlg(kOrvaneSegUnbounded, 0x1111111122222222, 0x3333333344444444,
                       0x5555555566666666);
}

// The next record that the writer builds carries them.
template <typename AnyStream>
void expectSettingsIn(AnyStream& stream, ChannelWriter& writer) {
  stream.write("");  // so that the end is not redundant
  writer.endSegment();
  const Record record = stream.flushed().back();
  EXPECT_EQ(record.type, 2U);
  EXPECT_EQ(record.segAlg, 1U);
  EXPECT_EQ(record.segParam1, 0x22222222U);
  EXPECT_EQ(record.segParam2, 0x44444444U);
  EXPECT_EQ(record.segParam3, 0x66666666U);
}

template <typename Transport>
class SegmentSettings : public testing::Test {
 protected:
  SegmentSettings() { set(*stream.writer); }

  void expectSettings() { expectSettingsIn(stream, *stream.writer); }

  Transport stream;
};
TYPED_TEST_SUITE(SegmentSettings, Transports, TransportName);

TYPED_TEST(SegmentSettings, SurviveOpen) {
  this->stream.open();
  this->expectSettings();
}

TYPED_TEST(SegmentSettings, SurviveASegmentAndItsEnd) {
  this->stream.open();
  this->stream.write("a");
  this->stream.writer->endSegment();
  this->stream.write("b");
  this->expectSettings();
  this->expectSettings();
}

TYPED_TEST(SegmentSettings, SurviveStop) {
  this->stream.open();
  this->stream.writer->stop(false);
  this->stream.writer->stop(true);
  this->stream.discardAll();
  this->expectSettings();
}

TYPED_TEST(SegmentSettings, SurviveCloseAndTheNextOpen) {
  this->stream.open();
  this->stream.write("a");
  this->stream.close();
  this->stream.open();
  this->expectSettings();
}

TEST(SegmentSettingsOfAQueue, SurviveAFailedOpenStopAndClose) {
  Stream stream;
  set(stream.writer);
  stream.pair.post(1001, "no");
  EXPECT_ANY_THROW(stream.writer.open());
  stream.pair.discardAll();
  stream.open();
  stream.pair.post(1001, "no");
  EXPECT_ANY_THROW(stream.writer.stop(false));
  stream.pair.post(1001, "no");
  EXPECT_ANY_THROW(stream.writer.close());
  stream.pair.discardAll();
  expectSettingsIn(stream, stream.writer);
}

TYPED_TEST(SegmentSettings, AreInTheStopOfAClosedWriter) {
  this->stream.writer->stop(false);
  EXPECT_EQ(this->stream.sent(), (std::vector<Record>{{.type = 4,
                                                       .seqNo = 1,
                                                       .segAlg = 1,
                                                       .segParam1 = 0x22222222,
                                                       .segParam2 = 0x44444444,
                                                       .segParam3 = 0x66666666}}));
}

TEST(SegmentSettingsOfAQueue, AreNotTouchedByTheCallersOwnRecords) {
  Stream stream;
  set(stream.writer);
  stream.open();
  pvk_shm_message_t header = recordHeader(1, 0, 2);
  header.segParam1 = header.segParam2 = header.segParam3 = 7;
  stream.writer.write_data(&header, nullptr, 0, true);
  stream.pair.discardAll();
  expectSettingsIn(stream, stream.writer);
}

TYPED_TEST(SegmentSettings, AreReplacedAltogether) {
  this->stream.open();
  this->stream.writer->setSegmentAlg(kOrvaneSegBounded, 1, 2, 3);
  this->stream.write("a");
  EXPECT_EQ(this->stream.flushed(), (std::vector<Record>{{.type = 1,
                                                          .seqNo = 2,
                                                          .segmentDone = 0,
                                                          .segParam1 = 1,
                                                          .segParam2 = 2,
                                                          .segParam3 = 3,
                                                          .data = bytesOf("a")}}));
}

}  // namespace
}  // namespace orvane::test
