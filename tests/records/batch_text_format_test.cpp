#include <gtest/gtest.h>

#include <sstream>

#include "orvane/batch.hpp"
#include "support/grouping_locale.hpp"
#include "support/throws.hpp"
#include "support/wire.hpp"

namespace orvane::test {
namespace {

void push(ShmBatch& batch, std::uint32_t type, const Bytes& data) {
  pvk_shm_message_t header;
  header.type = type;
  header.len = static_cast<std::uint32_t>(data.size());
  batch.pushBack(ShmBatch::Entry(header, data.data()));
}

TEST(BatchText, OfAnEmptyBatch) {
  const ShmBatch batch(1024);
  std::ostringstream text;
  EXPECT_EQ(&(text << batch), &text);
  EXPECT_EQ(text.str(), "ShmBatch: entries=0, bufferSize=1024, used=8");
}

TEST(BatchText, OfOneEntry) {
  ShmBatch batch(1024);
  push(batch, 1, bytesOf("hello"));
  std::ostringstream text;
  text << batch;
  EXPECT_EQ(text.str(),
            "ShmBatch: entries=1, bufferSize=1024, used=61, [0]: type=1, len=5, crc=103547413");
}

TEST(BatchText, OfSeveralEntriesCountsThem) {
  ShmBatch batch(1024);
  push(batch, 1, {0x61});
  push(batch, 2, {});
  push(batch, 3, bytesOf("abc"));
  std::ostringstream text;
  text << batch;
  EXPECT_EQ(text.str(),
            "ShmBatch: entries=3, bufferSize=1024, used=156, [0]: type=1, len=1, crc=6422626, "
            "[1]: type=2, len=0, [2]: type=3, len=3, crc=38600999");
}

TEST(BatchText, FollowsTheFlagsAndTheLocaleOfTheStream) {
  ShmBatch batch(1024);
  push(batch, 10, {});
  std::ostringstream hexText;
  hexText << std::hex << batch << ' ' << 16;
  EXPECT_EQ(hexText.str(), "ShmBatch: entries=1, bufferSize=400, used=38, [0]: type=a, len=0 10");
  std::ostringstream groupedText;
  groupedText.imbue(groupingLocale());
  groupedText << batch;
  EXPECT_EQ(groupedText.str(),
            "ShmBatch: entries=1, bufferSize=1'024, used=56, [0]: type=10, len=0");
}

TEST(BatchText, ThrowsAtACorruptHeaderBehindWhatItWrote) {
  ShmBatch batch(1024);
  push(batch, 1, {0x61});
  push(batch, 2, {});
  const_cast<unsigned char*>(batch.getRaw())[57 + 44] = 0;
  std::ostringstream text;
  EXPECT_TRUE(throwsErrno(
      32,
      "Could not deserialize pvk_shm_message from buffer because the magic value 12307677 is "
      "corrupt (expected=2864434397)",
      [&] { text << batch; }));
  EXPECT_EQ(text.str().rfind("ShmBatch: entries=2, bufferSize=1024, used=105, "
                             "[0]: type=1, len=1, crc=6422626",
                             0),
            0U);
}

}  // namespace
}  // namespace orvane::test
