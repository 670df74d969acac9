#include <endian.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "orvane/batch.hpp"
#include "orvane/records.hpp"

// Twins of what travels, written down a second time. When one of these fails the bytes changed:
// this breaks deployed servers. Do not mend the twin.
namespace orvane::test {
namespace {

struct HeaderTwin {
  std::uint32_t type;
  std::uint32_t len;
  std::uint64_t seqNo;
  std::uint64_t segmentNo;
  std::uint32_t segmentDone;
  std::uint32_t segAlg;
  std::uint32_t segParam1;
  std::uint32_t segParam2;
  std::uint32_t segParam3;
  std::uint32_t magic;
};
static_assert(sizeof(HeaderTwin) == 48);
static_assert(offsetof(HeaderTwin, len) == 4);
static_assert(offsetof(HeaderTwin, seqNo) == 8);
static_assert(offsetof(HeaderTwin, segmentNo) == 16);
static_assert(offsetof(HeaderTwin, segmentDone) == 24);
static_assert(offsetof(HeaderTwin, segAlg) == 28);
static_assert(offsetof(HeaderTwin, segParam1) == 32);
static_assert(offsetof(HeaderTwin, segParam2) == 36);
static_assert(offsetof(HeaderTwin, segParam3) == 40);
static_assert(offsetof(HeaderTwin, magic) == 44);

// The record in memory has the declared order too.
static_assert(sizeof(pvk_shm_message_t) == 48, "bytes changed: this breaks deployed clients");
static_assert(offsetof(pvk_shm_message_t, type) == 0);
static_assert(offsetof(pvk_shm_message_t, len) == 4);
static_assert(offsetof(pvk_shm_message_t, seqNo) == 8);
static_assert(offsetof(pvk_shm_message_t, segmentNo) == 16);
static_assert(offsetof(pvk_shm_message_t, segmentDone) == 24);
static_assert(offsetof(pvk_shm_message_t, segAlg) == 28);
static_assert(offsetof(pvk_shm_message_t, segParam1) == 32);
static_assert(offsetof(pvk_shm_message_t, segParam2) == 36);
static_assert(offsetof(pvk_shm_message_t, segParam3) == 40);
static_assert(offsetof(pvk_shm_message_t, magic) == 44);

static_assert(sizeof(pvk_shm_response_t) == 132, "bytes changed: this breaks deployed servers");
static_assert(offsetof(pvk_shm_response_t, status) == 0);
static_assert(sizeof(pvk_shm_response_t::status) == 4);
static_assert(offsetof(pvk_shm_response_t, text) == 4);
static_assert(sizeof(pvk_shm_response_t::text) == 128);

static_assert(offsetof(ShmBatch::MetaData, magic) == 0);
static_assert(offsetof(ShmBatch::MetaData, numEntries) == 4);
static_assert(sizeof(ShmBatch::MetaData) == 8);
static_assert(offsetof(ShmBatch::Entry, header) == 0);
static_assert(offsetof(ShmBatch::Entry, data) == 48);

TEST(WireTwin, OfTheHeaderReadsTheSameFields) {
  pvk_shm_message_t header;
  header.type = 1;
  header.len = 2;
  header.seqNo = 3;
  header.segmentNo = 4;
  header.segmentDone = 5;
  header.segAlg = 6;
  header.segParam1 = 7;
  header.segParam2 = 8;
  header.segParam3 = 9;
  unsigned char bytes[48];
  header.serializeToBuffer(bytes);
  HeaderTwin twin{};
  std::memcpy(&twin, bytes, sizeof twin);
  EXPECT_EQ(be32toh(twin.type), 1U);
  EXPECT_EQ(be32toh(twin.len), 2U);
  EXPECT_EQ(be64toh(twin.seqNo), 3U);
  EXPECT_EQ(be64toh(twin.segmentNo), 4U);
  EXPECT_EQ(be32toh(twin.segmentDone), 5U);
  EXPECT_EQ(be32toh(twin.segAlg), 6U);
  EXPECT_EQ(be32toh(twin.segParam1), 7U);
  EXPECT_EQ(be32toh(twin.segParam2), 8U);
  EXPECT_EQ(be32toh(twin.segParam3), 9U);
  EXPECT_EQ(be32toh(twin.magic), 0xAABBCCDDU);
}

TEST(WireTwin, OfTheResponseReadsTheSameFields) {
  struct {
    std::int32_t status;
    char text[128];
  } twin{};
  static_assert(sizeof twin == 132);
  pvk_shm_response_t response;
  response.assign(-7, "no space left");
  std::memcpy(&twin, &response, sizeof twin);
  EXPECT_EQ(twin.status, -7);
  EXPECT_STREQ(twin.text, "no space left");
}

}  // namespace
}  // namespace orvane::test
