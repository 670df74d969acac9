#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <string>
#include <type_traits>

#include "orvane/records.hpp"
#include "support/wire.hpp"

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

static_assert(!std::is_polymorphic_v<pvk_shm_response_t>);
static_assert(std::is_trivially_copyable_v<pvk_shm_response_t>);

Bytes rawBytesOf(const pvk_shm_response_t& response) {
  Bytes bytes(sizeof response);
  std::memcpy(bytes.data(), &response, sizeof response);
  return bytes;
}

Bytes followedByZeros(Bytes bytes) {
  bytes.resize(132);
  return bytes;
}

TEST(Response, StartsAs132ZeroBytes) {
  EXPECT_EQ(rawBytesOf(pvk_shm_response_t()), Bytes(132));
}

TEST(Response, IsItsRawBytesInHostOrder) {
  pvk_shm_response_t response;
  response.assign(0x01020304, "hello");
  EXPECT_EQ(rawBytesOf(response), followedByZeros(hex("04030201 68656c6c6f")));
}

TEST(Response, CarriesNegativeStatuses) {
  pvk_shm_response_t response;
  response.assign(-2, "");
  EXPECT_EQ(response.status, -2);
  EXPECT_EQ(rawBytesOf(response), followedByZeros(hex("feffffff")));
}

TEST(Response, TakesAnEmptyText) {
  pvk_shm_response_t response;
  response.assign(0, "");
  EXPECT_EQ(rawBytesOf(response), Bytes(132));
}

TEST(Response, Keeps127CharactersWhole) {
  pvk_shm_response_t response;
  response.assign(7, std::string(127, 'a').c_str());
  EXPECT_EQ(std::string(response.text, 128), std::string(127, 'a') + '\0');
}

TEST(Response, CutsATextOf128Characters) {
  pvk_shm_response_t response;
  response.assign(7, std::string(128, 'a').c_str());
  EXPECT_EQ(std::string(response.text, 128), std::string(127, 'a') + '\0');
}

TEST(Response, CutsATextOf200CharactersWithinTheField) {
  struct {
    pvk_shm_response_t response;
    unsigned char behind = 0xEE;
  } guarded;
  guarded.response.assign(7, std::string(200, 'a').c_str());
  EXPECT_EQ(guarded.response.status, 7);
  EXPECT_EQ(std::string(guarded.response.text, 128), std::string(127, 'a') + '\0');
  EXPECT_EQ(guarded.behind, 0xEE);
}

TEST(Response, LeavesNothingOfALongerFormerText) {
  pvk_shm_response_t response;
  response.assign(7, std::string(127, 'a').c_str());
  response.assign(8, "b");
  EXPECT_EQ(rawBytesOf(response), followedByZeros(hex("08000000 62")));
}

TEST(Response, TakesATextThatIsAPartOfItsOwn) {
  std::string text;
  for (int i = 0; i < 127; ++i) {
    text += static_cast<char>('a' + i % 26);
  }
  pvk_shm_response_t response;
  response.assign(7, text.c_str());
  response.assign(8, response.text + 3);
  EXPECT_EQ(response.status, 8);
  EXPECT_EQ(std::string(response.text, 128), text.substr(3) + std::string(4, '\0'));
}

TEST(Response, TakesItsOwnWholeText) {
  pvk_shm_response_t response;
  response.assign(7, "hello");
  response.assign(8, response.text);
  EXPECT_EQ(rawBytesOf(response), followedByZeros(hex("08000000 68656c6c6f")));
}

TEST(ResponseComparison, LooksAtStatusAndText) {
  pvk_shm_response_t a;
  pvk_shm_response_t b;
  a.assign(1, "text");
  b.assign(1, "text");
  EXPECT_TRUE(a == b);
  EXPECT_FALSE(a != b);
  b.assign(2, "text");
  EXPECT_TRUE(a != b);
  EXPECT_FALSE(a == b);
  b.assign(1, "tex");
  EXPECT_TRUE(a != b);
  EXPECT_FALSE(a == b);
}

}  // namespace
}  // namespace orvane::test
