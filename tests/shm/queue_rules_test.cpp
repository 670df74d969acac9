#include "shm/queue_rules.hpp"

#include <gtest/gtest.h>

#include <stdexcept>

namespace {

std::string refusalOf(const std::string& name) {
  try {
    tool::checkQueueName(name);
    return "accepted";
  } catch (const std::invalid_argument& e) {
    return e.what();
  }
}

constexpr char kBadCharacter[] =
    "the queue name holds a character that is not allowed: use letters, digits and _.-";

TEST(QueueNameRule, AcceptsLettersDigitsUnderscoreDotAndDash) {
  EXPECT_EQ(refusalOf("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_.-"),
            "accepted");
  EXPECT_EQ(refusalOf("x"), "accepted");
  EXPECT_EQ(refusalOf("-"), "accepted");
}

TEST(QueueNameRule, AcceptsUpTo200Bytes) {
  EXPECT_EQ(refusalOf(std::string(200, 'q')), "accepted");
  EXPECT_EQ(refusalOf(std::string(201, 'q')), "the queue name is 201 bytes long: use at most 200");
}

TEST(QueueNameRule, RefusesAnEmptyName) {
  EXPECT_EQ(refusalOf(""), "the queue name is empty");
}

TEST(QueueNameRule, RefusesALeadingDotOnly) {
  EXPECT_EQ(refusalOf(".hidden"), "the queue name begins with a dot");
  EXPECT_EQ(refusalOf(".."), "the queue name begins with a dot");
  EXPECT_EQ(refusalOf("not.hidden."), "accepted");
}

TEST(QueueNameRule, RefusesAResponseQueuesName) {
  const std::string refusal = "the queue name ends in Response, as only response queues' do";
  EXPECT_EQ(refusalOf("ordersResponse"), refusal);
  EXPECT_EQ(refusalOf("Response"), refusal);
  EXPECT_EQ(refusalOf("Responses"), "accepted");
  EXPECT_EQ(refusalOf("Response.orders"), "accepted");
  EXPECT_EQ(refusalOf("response"), "accepted");
}

TEST(QueueNameRule, RefusesEveryOtherByteWithoutRepeatingIt) {
  const std::string allowed = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_.-";
  for (int byte = 0; byte < 256; ++byte) {
    const char c = static_cast<char>(byte);
    if (allowed.find(c) == std::string::npos) {
      EXPECT_EQ(refusalOf(std::string("a") + c + "b"), kBadCharacter) << "byte " << byte;
    }
  }
}

TEST(MessageSize, FitsWholeRecordsOfTheLargestSize) {
  EXPECT_EQ(tool::smallestMessageSize(), 56U);
  EXPECT_EQ(tool::messageSizeFor(1), 131128U);
  EXPECT_EQ(tool::messageSizeFor(8), 1048968U);
}

}  // namespace
