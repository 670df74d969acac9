#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <string>

#include "orvane/records.hpp"

namespace orvane::test {
namespace {

TEST(ResponseComparison, LooksAtTheWholeStatus) {
  pvk_shm_response_t a;
  pvk_shm_response_t b;
  a.assign(1, "text");
  for (const ox_status_t status : {257, 65537, -1, std::numeric_limits<ox_status_t>::min() + 1}) {
    b.assign(status, "text");
    EXPECT_EQ(b.status, status);
    EXPECT_TRUE(a != b);
    EXPECT_FALSE(a == b);
  }
}

TEST(ResponseComparison, LooksAtTheLastCharacter) {
  pvk_shm_response_t a;
  pvk_shm_response_t b;
  a.assign(1, (std::string(126, 'x') + "a").c_str());
  b.assign(1, (std::string(126, 'x') + "b").c_str());
  EXPECT_TRUE(a != b);
  EXPECT_FALSE(a == b);
}

TEST(ResponseComparison, OfReceivedTextsWithoutAnEndStopsAtTheField) {
  struct Twin {
    pvk_shm_response_t response;
    char behind = 0;
  } a, b;
  std::memset(a.response.text, 'x', sizeof a.response.text);
  std::memset(b.response.text, 'x', sizeof b.response.text);
  a.behind = 'a';
  b.behind = 'b';
  EXPECT_TRUE(a.response == b.response);
  b.response.text[127] = 'y';
  EXPECT_TRUE(a.response != b.response);
}

TEST(ResponseComparison, IgnoresWhatStandsBehindTheTextsEnd) {
  pvk_shm_response_t a;
  pvk_shm_response_t b;
  a.assign(1, "text");
  b.assign(1, "text");
  b.text[100] = 'x';
  EXPECT_TRUE(a == b);
  EXPECT_FALSE(a != b);
}

}  // namespace
}  // namespace orvane::test
