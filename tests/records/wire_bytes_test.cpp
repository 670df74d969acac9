#include <endian.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "orvane/batch.hpp"
#include "orvane/records.hpp"

// The structures that are sent, declared a second time. If one of these checks fails, the bytes
// have changed, which breaks deployed servers: correct the change, not this declaration.
namespace orvane::test {
namespace {

struct WireHeader {
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
static_assert(sizeof(WireHeader) == 48);
static_assert(offsetof(WireHeader, len) == 4);
static_assert(offsetof(WireHeader, seqNo) == 8);
static_assert(offsetof(WireHeader, segmentNo) == 16);
static_assert(offsetof(WireHeader, segmentDone) == 24);
static_assert(offsetof(WireHeader, segAlg) == 28);
static_assert(offsetof(WireHeader, segParam1) == 32);
static_assert(offsetof(WireHeader, segParam2) == 36);
static_assert(offsetof(WireHeader, segParam3) == 40);
static_assert(offsetof(WireHeader, magic) == 44);

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

TEST(WireBytes, OfTheHeaderReadsTheSameFields) {
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
  WireHeader wire{};
  std::memcpy(&wire, bytes, sizeof wire);
  EXPECT_EQ(be32toh(wire.type), 1U);
  EXPECT_EQ(be32toh(wire.len), 2U);
  EXPECT_EQ(be64toh(wire.seqNo), 3U);
  EXPECT_EQ(be64toh(wire.segmentNo), 4U);
  EXPECT_EQ(be32toh(wire.segmentDone), 5U);
  EXPECT_EQ(be32toh(wire.segAlg), 6U);
  EXPECT_EQ(be32toh(wire.segParam1), 7U);
  EXPECT_EQ(be32toh(wire.segParam2), 8U);
  EXPECT_EQ(be32toh(wire.segParam3), 9U);
  EXPECT_EQ(be32toh(wire.magic), 0xAABBCCDDU);
}

TEST(WireBytes, OfTheResponseReadsTheSameFields) {
  struct {
    std::int32_t status;
    char text[128];
  } wire{};
  static_assert(sizeof wire == 132);
  pvk_shm_response_t response;
  response.assign(-7, "no space left");
  std::memcpy(&wire, &response, sizeof wire);
  EXPECT_EQ(wire.status, -7);
  EXPECT_STREQ(wire.text, "no space left");
}

}  // namespace
}  // namespace orvane::test
