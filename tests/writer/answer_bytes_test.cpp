#include <gtest/gtest.h>

#include "support/stream.hpp"
#include "support/throws.hpp"

// An answer overwrites as many bytes of the last one as it holds.
namespace orvane::test {
namespace {

class AnswerBytes : public testing::Test {
 protected:
  AnswerBytes() {
    stream.pair.post(0x04030201, "the first text");
    EXPECT_TRUE(throws(0x04030201, "the first text"));
  }

  testing::AssertionResult throws(std::int32_t status, const std::string& text) {
    return throwsErrno(status, text, [&] { stream.writer.flush_shm_buffer(0); });
  }

  Stream stream;
};

TEST_F(AnswerBytes, OneToThreeReplaceTheLowBytesOfTheStatus) {
  stream.pair.postBytes(hex("a1"));
  EXPECT_TRUE(throws(0x040302A1, "the first text"));
  stream.pair.postBytes(hex("b1 b2"));
  EXPECT_TRUE(throws(0x0403B2B1, "the first text"));
  stream.pair.postBytes(hex("c1 c2 c3"));
  EXPECT_TRUE(throws(0x04C3C2C1, "the first text"));
}

TEST_F(AnswerBytes, OfZeroLeaveAnErrorUntilTheLastOneIsGone) {
  stream.pair.postBytes(hex("00"));
  EXPECT_TRUE(throws(0x04030200, "the first text"));
  stream.pair.postBytes(hex("00 00 00"));
  EXPECT_TRUE(throws(0x04000000, "the first text"));
  stream.pair.postBytes(hex("00 00 00 00"));
  EXPECT_NO_THROW(stream.writer.flush_shm_buffer(0));
  stream.pair.postBytes(hex("01"));
  EXPECT_TRUE(throws(1, "the first text"));
}

TEST_F(AnswerBytes, OfAShorterTextLeaveTheRestOfTheOneBefore) {
  stream.pair.postBytes(hex("e9030000 41"));
  EXPECT_TRUE(throws(1001, "Ahe first text"));
  stream.pair.postBytes(hex("e9030000 42 00"));
  EXPECT_TRUE(throws(1001, "B"));
  stream.pair.postBytes(hex("e9030000 43 44"));
  EXPECT_TRUE(throws(1001, "CDe first text"));
}

TEST_F(AnswerBytes, StayWhenNoAnswerWaits) {
  EXPECT_NO_THROW(stream.writer.flush_shm_buffer(0)) << "an old error is not thrown again";
  stream.pair.postBytes({});
  EXPECT_TRUE(throws(0x04030201, "the first text"));
}

TEST_F(AnswerBytes, StayThroughCloseAndOpen) {
  stream.open();
  stream.writer.close();
  stream.open();
  stream.pair.postBytes(hex("01"));
  EXPECT_TRUE(throws(0x04030201, "the first text"));
}

TEST(AnswerByte, IsReadFromTheFirstAnswerOn) {
  Stream stream;
  stream.pair.postBytes(hex("07"));
  EXPECT_TRUE(throwsErrno(7, "", [&] { stream.writer.flush_shm_buffer(0); }));
}

TEST(AnswerByte, MayBeTheLastOfAFullAnswerOf132) {
  Stream stream;
  Bytes bytes(132, 'x');
  bytes.back() = 'y';
  stream.pair.postBytes(bytes);
  EXPECT_TRUE(throwsErrno(0x78787878, std::string(127, 'x') + "y",
                          [&] { stream.writer.flush_shm_buffer(0); }));
}

}  // namespace
}  // namespace orvane::test
