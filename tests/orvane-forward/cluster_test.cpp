#include "cluster.hpp"

#include <gtest/gtest.h>

#include "chunk.hpp"
#include "support/text.hpp"

namespace forward {
namespace {

using orvane::test::contains;

TEST(ClusterAnswer, SaysThatAMessageIsStored) {
  EXPECT_EQ(answerIn(R"({"stream":"orvane","seq":7})"), Answer::stored);
}

TEST(ClusterAnswer, OfAnIdThatIsKnownDoesNotSayThatItIsStored) {
  EXPECT_EQ(answerIn(R"({"stream":"orvane","seq":7,"duplicate":true})"), Answer::repeated);
}

TEST(ClusterAnswer, SaysThatTheSubjectHasAMessage) {
  EXPECT_EQ(answerIn(R"({"error":{"code":503,"err_code":10077,)"
                     R"("description":"maximum messages per subject exceeded"},)"
                     R"("stream":"orvane","seq":0})"),
            Answer::known);
}

TEST(ClusterAnswer, SaysThatThereIsNoRoom) {
  EXPECT_EQ(answerIn(R"({"error":{"code":503,"err_code":10077,)"
                     R"("description":"maximum bytes exceeded"},"stream":"orvane","seq":0})"),
            Answer::full);
  EXPECT_EQ(answerIn(R"({"error":{"code":503,"err_code":10023,)"
                     R"("description":"insufficient resources"},"stream":"orvane","seq":0})"),
            Answer::full);
}

TEST(ClusterAnswer, OfAnythingElseIsNone) {
  for (const char* const text :
       {"", "no JSON", "[]", R"({"stream":"other","seq":7})", "{}",
        R"({"error":{"code":503,"err_code":10008,"description":"temporarily unavailable"}})",
        R"({"error":{"code":503,"err_code":10118,"description":"stream is offline"}})"}) {
    EXPECT_EQ(answerIn(text), Answer::unavailable) << text;
  }
}

TEST(ClusterSettings, ThatAreMadeLoseNothing) {
  EXPECT_EQ(faultOf(settingsFor(1), 0), "");
  EXPECT_EQ(faultOf(settingsFor(3), 3), "");
}

TEST(ClusterSettings, ThatWouldLoseSomethingAreNamed) {
  const std::pair<Json, const char*> changes[] = {
      {{{"subjects", {"orvane.1.a.>"}}}, "its subjects lack orvane.1.>"},
      {{{"storage", "memory"}}, "its storage is not file"},
      {{{"retention", "workqueue"}}, "its retention is not limits"},
      {{{"discard", "old"}}, "discard new"},
      {{{"discard_new_per_subject", false}}, "discard_new_per_subject"},
      {{{"max_msgs_per_subject", 2}}, "max_msgs_per_subject 1"},
      {{{"allow_rollup_hdrs", true}}, "it has allow_rollup_hdrs"},
      {{{"no_ack", true}}, "it has no_ack"},
      {{{"sealed", true}}, "it is sealed"},
      {{{"num_replicas", 1}}, "it has fewer than 3 replicas"}};
  for (const auto& [change, fault] : changes) {
    Json settings = settingsFor(3);
    settings.update(change);
    EXPECT_TRUE(contains(faultOf(settings, 3), fault)) << change;
  }
}

TEST(ClusterSettings, OfAnOlderServerLackWhatIsFalse) {
  Json settings = settingsFor(1);
  settings.erase("discard_new_per_subject");
  EXPECT_TRUE(contains(faultOf(settings, 0), "discard_new_per_subject"));
}

TEST(ChunkSize, LeavesRoomForHeaders) {
  EXPECT_EQ(chunkSizeFor(1048576), 983040U);
  EXPECT_EQ(chunkSizeFor(64U << 20), 983040U);
  EXPECT_EQ(chunkSizeFor(65536), 61440U);
  EXPECT_EQ(chunkSizeFor(5120), 1024U);
  EXPECT_EQ(chunkSizeFor(5119), 0U);
  EXPECT_EQ(chunkSizeFor(0), 0U);
}

}  // namespace
}  // namespace forward
