#include <gtest/gtest.h>

#include <ios>
#include <sstream>

#include "batch_members.hpp"
#include "entries.hpp"
#include "orvane/batch.hpp"
#include "ox/errno_exception.hpp"
#include "support/grouping_locale.hpp"
#include "support/throws.hpp"
#include "support/wire.hpp"

namespace orvane::test {
namespace {

using Entry = ShmBatch::Entry;

// Behind its first `length` bytes both sums are as large as they can become by 65519; the largest
// bytes follow, as many again. Sums that are reduced only after `length` bytes overflow.
Bytes overflowingFrom(std::size_t length) {
  Bytes bytes(256, 0xFF);
  bytes.push_back(0xEF);
  bytes.resize(length);
  bytes.resize(2 * length, 0xFF);
  return bytes;
}

TEST(EntryText, ReducesTheCheckValueBeforeItOverflows) {
  EXPECT_EQ(textOf(entryOf(0, overflowingFrom(5553))), "type=0, len=11106, crc=1444322441");
  EXPECT_EQ(textOf(entryOf(0, overflowingFrom(5554))), "type=0, len=11108, crc=4087192968");
  EXPECT_EQ(textOf(entryOf(0, overflowingFrom(5555))), "type=0, len=11110, crc=2452790919");
  EXPECT_EQ(textOf(entryOf(0, overflowingFrom(5600))), "type=0, len=11200, crc=2023082842");
}

TEST(EntryText, PrintsItsLengthUnsigned) {
  pvk_shm_message_t header;
  header.len = 0xFFFFFFFF;
  EXPECT_EQ(textOf(Entry(header, nullptr)), "type=0, len=4294967295, crc=1");
}

TEST(EntryText, ShowsLengthsOf64KiBAndMore) {
  EXPECT_EQ(textOf(entryOf(0, Bytes(65535))), "type=0, len=65535, crc=917505");
  EXPECT_EQ(textOf(entryOf(0, Bytes(65536))), "type=0, len=65536, crc=983041");
  EXPECT_EQ(textOf(entryOf(0, Bytes(131072))), "type=0, len=131072, crc=1966081");
}

TEST(EntryText, PrintsNoSignWhereTheStreamShowsThem) {
  const Bytes data = {0x61};
  std::ostringstream text;
  text << std::showpos << entryOf(3, data) << 7;
  EXPECT_EQ(text.str(), "type=3, len=1, crc=6422626+7");
}

TEST(BatchText, PrintsNoSignWhereTheStreamShowsThem) {
  ShmBatch batch(1024);
  batch.pushBack(entryOf(3, {0x61}));
  std::ostringstream text;
  text << std::showpos << batch << 7;
  EXPECT_EQ(text.str(),
            "ShmBatch: entries=1, bufferSize=1024, used=57, [0]: type=3, len=1, crc=6422626+7");
}

TEST(BatchText, LeavesTheFormatOfTheStreamAlone) {
  ShmBatch batch(1024);
  batch.pushBack(entryOf(3, {0x61}));
  for (const std::ios_base::fmtflags flags :
       {std::ios_base::fmtflags{}, std::ios_base::oct | std::ios_base::showpos,
        std::ios_base::hex | std::ios_base::showbase | std::ios_base::uppercase}) {
    std::ostringstream text;
    text.flags(flags);
    text << batch;
    EXPECT_EQ(text.flags(), flags);
    EXPECT_EQ(text.width(), 0);
  }
}

TEST(BatchText, FollowsTheBaseOfTheStreamInEveryNumber) {
  ShmBatch batch(1024);
  for (int i = 0; i < 11; ++i) {
    batch.pushBack(Entry(pvk_shm_message_t(), nullptr));
  }
  batch.pushBack(entryOf(171, Bytes(10, 0xFF)));
  std::ostringstream text;
  text << std::hex << batch;
  const std::string last = ", [b]: type=ab, len=a, crc=36d309f7";
  EXPECT_EQ(text.str().substr(0, 45), "ShmBatch: entries=c, bufferSize=400, used=252");
  EXPECT_EQ(text.str().substr(text.str().size() - last.size()), last);
}

TEST(BatchText, ShowsWideNumbersUnsigned) {
  ShmBatch batch(64);
  metaDataOf(batch).numEntries = 0xFFFFFFFE;
  bufferSizeOf(batch) = 0xFFFFFFFFFFFFFFFD;
  usedOf(batch) = 0xFFFFFFFFFFFFFFFC;
  std::ostringstream text;
  EXPECT_THROW(text << batch, Ox_ErrnoException);  // there is no first entry
  EXPECT_EQ(text.str().substr(0, 98),
            "ShmBatch: entries=4294967294, bufferSize=18446744073709551613, "
            "used=18446744073709551612, [0]: ");
}

TEST(BatchText, ShowsLengthsOf64KiBAndMore) {
  ShmBatch batch(300000);
  batch.pushBack(entryOf(1, Bytes(65536)));
  batch.pushBack(entryOf(2, Bytes(65537)));
  batch.pushBack(entryOf(3, {}));
  std::ostringstream text;
  text << batch;
  EXPECT_EQ(text.str(),
            "ShmBatch: entries=3, bufferSize=300000, used=131225, [0]: type=1, len=65536, "
            "crc=983041, [1]: type=2, len=65537, crc=1048577, [2]: type=3, len=0");
}

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

TEST(BatchText, ThrowsAtACorruptHeaderAfterWhatItWrote) {
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
