#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <type_traits>

#include "orvane/records.hpp"
#include "support/wire.hpp"

namespace orvane::test {
namespace {

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
