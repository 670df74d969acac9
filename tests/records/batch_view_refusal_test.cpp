#include "orvane/batch_view.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <ostream>
#include <ranges>
#include <string>
#include <vector>

#include "support/throws.hpp"
#include "support/wire.hpp"

namespace orvane::test {
namespace {

const BatchBytes kWholeBatch = BatchBytes().records(
    {{.type = 1, .seqNo = 2, .data = bytesOf("hello")}, {.type = 2, .seqNo = 3}});

TEST(BatchView, GivesBackWhatABatchHolds) {
  ShmBatch batch(1024);
  const Bytes hello = bytesOf("hello");
  pvk_shm_message_t header;
  header.type = 1;
  header.len = 5;
  const ShmBatch::Entry first(header, hello.data());
  header.type = 2;
  header.len = 0;
  const ShmBatch::Entry second(header, nullptr);
  batch.pushBack(first);
  batch.pushBack(second);
  const BatchView view(batch.getRaw(), batch.getRawSize());
  EXPECT_EQ(view.size(), 2U);
  EXPECT_FALSE(view.empty());
  const std::vector<ShmBatch::Entry> entries(view.begin(), view.end());
  ASSERT_EQ(entries.size(), 2U);
  EXPECT_TRUE(entries[0] == first);
  EXPECT_EQ(entries[0].data, batch.getRaw() + 56);
  EXPECT_TRUE(entries[1] == second);
  EXPECT_EQ(entries[1].data, nullptr);
}

TEST(BatchView, OfAnEmptyBatchIsEmpty) {
  const Bytes bytes = BatchBytes().bytes();
  const BatchView view(bytes.data(), bytes.size());
  EXPECT_TRUE(view.empty());
  EXPECT_EQ(view.size(), 0U);
  EXPECT_TRUE(view.begin() == view.end());
}

TEST(BatchView, IsAForwardRangeForStandardAlgorithms) {
  static_assert(std::ranges::forward_range<BatchView>);
  const Bytes& bytes = kWholeBatch.bytes();
  const BatchView view(bytes.data(), bytes.size());
  EXPECT_EQ(std::ranges::distance(view), 2);
  EXPECT_EQ(std::count_if(view.begin(), view.end(),
                          [](const ShmBatch::Entry& entry) { return entry.header.len == 0; }),
            1);
  const auto second =
      std::ranges::find(view, 3U, [](const ShmBatch::Entry& entry) { return entry.header.seqNo; });
  ASSERT_NE(second, view.end());
  EXPECT_EQ(second->header.type, 2U);
}

TEST(BatchView, MayBeReadAgainFromAnyPosition) {
  const Bytes& bytes = kWholeBatch.bytes();
  const BatchView view(bytes.data(), bytes.size());
  BatchView::Iterator position = view.begin();
  const BatchView::Iterator before = position++;
  EXPECT_EQ(before, view.begin());
  EXPECT_NE(before, position);
  EXPECT_EQ((*before).header.seqNo, 2U);
  EXPECT_EQ((*position).header.seqNo, 3U);
  EXPECT_EQ(++position, view.end());
  EXPECT_EQ((*before).header.seqNo, 2U);
}

TEST(BatchView, FollowsRunsOfEqualAndOfChangingLengths) {
  const Bytes bytes = BatchBytes()
                          .records({{.seqNo = 1, .data = bytesOf("aaa")},
                                    {.seqNo = 2, .data = bytesOf("bbb")},
                                    {.seqNo = 3},
                                    {.seqNo = 4},
                                    {.seqNo = 5, .data = bytesOf("c")},
                                    {.seqNo = 6, .data = bytesOf("ddd")}})
                          .bytes();
  std::vector<std::uint64_t> numbers;
  std::string text;
  for (const ShmBatch::Entry& entry : BatchView(bytes.data(), bytes.size())) {
    numbers.push_back(entry.header.seqNo);
    text.append(entry.data, entry.data + entry.header.len);
  }
  EXPECT_EQ(numbers, (std::vector<std::uint64_t>{1, 2, 3, 4, 5, 6}));
  EXPECT_EQ(text, "aaabbbcddd");
}

// Each reason to refuse a batch, with its whole text.
struct Refusal {
  const char* what;
  BatchBytes batch;
  ox_status_t status;
  const char* message;
};

void PrintTo(const Refusal& refusal, std::ostream* stream) {
  *stream << refusal.what;
}

class BatchViewRefusal : public testing::TestWithParam<Refusal> {};

TEST_P(BatchViewRefusal, NamesWhatIsWrong) {
  const Bytes bytes = GetParam().batch.bytes();
  EXPECT_TRUE(throwsErrno(GetParam().status, GetParam().message,
                          [&] { BatchView(bytes.data(), bytes.size()); }));
}

INSTANTIATE_TEST_SUITE_P(
    Each, BatchViewRefusal,
    testing::Values(
        Refusal{"TooSmallForMetadata", BatchBytes().cut(7), 9,
                "Buffer size 7 is invalid because it is smaller than the minimum required buffer "
                "size of 8"},
        Refusal{"CorruptMetadata", BatchBytes(kWholeBatch).put32(0, 1), 32,
                "Could not deserialize ShmBatch::MetaData from buffer because the magic value 1 is "
                "corrupt (expected=4278251025)"},
        Refusal{"CorruptFirstHeader", BatchBytes(kWholeBatch).put32(52, 1), 32,
                "Could not deserialize pvk_shm_message from buffer because the magic value 1 is "
                "corrupt (expected=2864434397)"},
        Refusal{"CorruptLastHeader", BatchBytes(kWholeBatch).put32(105, 0), 32,
                "Could not deserialize pvk_shm_message from buffer because the magic value 0 is "
                "corrupt (expected=2864434397)"},
        Refusal{"CountBeyondTheSize", BatchBytes(kWholeBatch).put32(4, 3), 9,
                "Could not read batch because its 3 entries need at least 144 bytes but only 101 "
                "are there"},
        Refusal{"LargestCount", BatchBytes(kWholeBatch).put32(4, 0xFFFFFFFF), 9,
                "Could not read batch because its 4294967295 entries need at least 206158430160 "
                "bytes but only 101 are there"},
        Refusal{"HeaderBeyondTheEnd", BatchBytes(kWholeBatch).put32(12, 6), 9,
                "Could not read batch entry 1 at offset 62 because its header needs 48 bytes but "
                "only 47 are there"},
        Refusal{"DataBeyondTheEnd", BatchBytes(kWholeBatch).put32(12, 54), 9,
                "Could not read batch entry 0 at offset 8 because its data needs 54 bytes but only "
                "53 are there"},
        Refusal{"DataOfTheLastBeyondTheEnd", BatchBytes(kWholeBatch).put32(65, 1), 9,
                "Could not read batch entry 1 at offset 61 because its data needs 1 bytes but only "
                "0 are there"},
        Refusal{"LargestLength", BatchBytes(kWholeBatch).put32(12, 0xFFFFFFFF), 9,
                "Could not read batch entry 0 at offset 8 because its data needs 4294967295 bytes "
                "but only 53 are there"},
        Refusal{"BytesLeftOver", BatchBytes(kWholeBatch).append({0, 0, 0}), 9,
                "Could not read batch because 3 bytes are left over behind its 2 entries at offset "
                "109"},
        Refusal{"RecordLeftOver", BatchBytes(kWholeBatch).put32(4, 1), 9,
                "Could not read batch because 48 bytes are left over behind its 1 entries at "
                "offset 61"},
        Refusal{"EmptyBatchWithMore", BatchBytes().append({0}), 9,
                "Could not read batch because 1 bytes are left over behind its 0 entries at offset "
                "8"}),
    [](const auto& refusal) { return std::string(refusal.param.what); });

}  // namespace
}  // namespace orvane::test
