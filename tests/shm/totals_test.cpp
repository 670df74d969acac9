#include "shm/totals.hpp"

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <new>

namespace {

using tool::setStream;
using tool::streamOf;
using tool::Totals;

constexpr char kId[] = "20261121T072319-17472_4294967295";

std::string bytesOf(const Totals& totals) {
  return {reinterpret_cast<const char*>(&totals), sizeof totals};
}

// Other programs read it, and other versions.
TEST(SharedTotalsTest, LiesInMemoryAsItIsDrawn) {
  Totals totals;
  totals.magic = tool::kTotalsMagic;
  totals.version = tool::kTotalsVersion;
  setStream(totals, "an id");
  const std::map<std::size_t, Totals::Number*> drawn = {
      {16, &totals.server},          {24, &totals.worker},     {32, &totals.messages},
      {40, &totals.messageSize},     {48, &totals.madeAt},     {56, &totals.madeAtMonotonic},
      {64, &totals.batches},         {72, &totals.records},    {80, &totals.bytes},
      {88, &totals.segments},        {96, &totals.streams},    {104, &totals.badBatches},
      {112, &totals.errorAnswers},   {120, &totals.lastBatch}, {184, &totals.userPlusOne},
      {192, &totals.unreadReceipts}, {200, &totals.answered}};
  for (const auto& [offset, number] : drawn) {
    *number = 0x0807060504030200 + offset;
  }
  const std::string bytes = bytesOf(totals);
  ASSERT_EQ(bytes.size(), 208U);
  EXPECT_EQ(bytes.substr(0, 16), std::string("orvstats\1\0\0\0\0\0\0\0", 16));
  for (const auto& [offset, number] : drawn) {
    EXPECT_EQ(bytes.substr(offset, 8),
              std::string(1, static_cast<char>(offset)) + "\2\3\4\5\6\7\x08")
        << offset;
  }
  EXPECT_EQ(bytes.substr(128, 8), std::string("\2\0\0\0\0\0\0\0", 8));
  EXPECT_EQ(bytes.substr(136, 48), "an id" + std::string(43, '\0'));
}

TEST(SharedTotalsTest, ReadsTheIdOfTheOpenStream) {
  Totals totals;
  EXPECT_EQ(streamOf(totals), "");
  setStream(totals, kId);
  EXPECT_EQ(streamOf(totals), kId);
  setStream(totals, "short");
  EXPECT_EQ(streamOf(totals), "short");
  setStream(totals, "");
  EXPECT_EQ(streamOf(totals), "");
}

TEST(SharedTotalsTest, HaveAnsweredNothingOfAStreamThatIsNotOpen) {
  Totals totals;
  setStream(totals, kId);
  totals.answered = 5;
  EXPECT_EQ(tool::answeredOf(totals, kId), 5U);
  EXPECT_EQ(tool::answeredOf(totals, "20261121T072319-17472_0"), 0U);
  totals.streamChanges = 3;  // the worker is changing the id
  EXPECT_EQ(tool::answeredOf(totals, kId), 0U);
  totals.streamChanges = 4;
  setStream(totals, "");
  EXPECT_EQ(tool::answeredOf(totals, kId), 0U);
}

TEST(SharedTotalsTest, CutsAnIdThatIsTooLong) {
  Totals totals;
  setStream(totals, std::string(48, 'x') + "y");
  EXPECT_EQ(streamOf(totals), std::string(48, 'x'));
  EXPECT_EQ(totals.streamChanges, 2U);
}

TEST(SharedTotalsTest, ReadsNoIdThatIsChanging) {
  Totals totals;
  setStream(totals, kId);
  totals.streamChanges = 3;
  EXPECT_EQ(streamOf(totals), std::nullopt);
}

TEST(SharedTotalsTest, AddsToATotal) {
  Totals::Number total{40};
  tool::add(total, 2);
  EXPECT_EQ(total, 42U);
}

}  // namespace
