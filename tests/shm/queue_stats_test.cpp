#include "shm/queue_stats.hpp"

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <new>

namespace {

using tool::QueueStats;
using tool::setStream;
using tool::streamOf;

constexpr char kId[] = "20261121T072319-17472_4294967295";

std::string bytesOf(const QueueStats& stats) {
  return {reinterpret_cast<const char*>(&stats), sizeof stats};
}

// Other programs read it, and other versions.
TEST(QueueStatsTest, LiesInMemoryAsItIsDrawn) {
  QueueStats stats;
  stats.magic = tool::kStatsMagic;
  stats.version = tool::kStatsVersion;
  setStream(stats, "an id");
  const std::map<std::size_t, QueueStats::Number*> drawn = {
      {16, &stats.server},         {24, &stats.worker},     {32, &stats.messages},
      {40, &stats.messageSize},    {48, &stats.madeAt},     {56, &stats.madeAtMonotonic},
      {64, &stats.batches},        {72, &stats.records},    {80, &stats.bytes},
      {88, &stats.segments},       {96, &stats.streams},    {104, &stats.badBatches},
      {112, &stats.errorAnswers},  {120, &stats.lastBatch}, {184, &stats.userPlusOne},
      {192, &stats.unreadReceipts}};
  for (const auto& [offset, number] : drawn) {
    *number = 0x0807060504030200 + offset;
  }
  const std::string bytes = bytesOf(stats);
  ASSERT_EQ(bytes.size(), 200U);
  EXPECT_EQ(bytes.substr(0, 16), std::string("orvstats\1\0\0\0\0\0\0\0", 16));
  for (const auto& [offset, number] : drawn) {
    EXPECT_EQ(bytes.substr(offset, 8),
              std::string(1, static_cast<char>(offset)) + "\2\3\4\5\6\7\x08")
        << offset;
  }
  EXPECT_EQ(bytes.substr(128, 8), std::string("\2\0\0\0\0\0\0\0", 8));
  EXPECT_EQ(bytes.substr(136, 48), "an id" + std::string(43, '\0'));
}

TEST(QueueStatsTest, ReadsTheIdOfTheOpenStream) {
  QueueStats stats;
  EXPECT_EQ(streamOf(stats), "");
  setStream(stats, kId);
  EXPECT_EQ(streamOf(stats), kId);
  setStream(stats, "short");
  EXPECT_EQ(streamOf(stats), "short");
  setStream(stats, "");
  EXPECT_EQ(streamOf(stats), "");
}

TEST(QueueStatsTest, CutsAnIdThatIsTooLong) {
  QueueStats stats;
  setStream(stats, std::string(48, 'x') + "y");
  EXPECT_EQ(streamOf(stats), std::string(48, 'x'));
  EXPECT_EQ(stats.streamChanges, 2U);
}

TEST(QueueStatsTest, ReadsNoIdThatIsChanging) {
  QueueStats stats;
  setStream(stats, kId);
  stats.streamChanges = 3;
  EXPECT_EQ(streamOf(stats), std::nullopt);
}

TEST(QueueStatsTest, AddsToATotal) {
  QueueStats::Number total{40};
  tool::add(total, 2);
  EXPECT_EQ(total, 42U);
}

}  // namespace
