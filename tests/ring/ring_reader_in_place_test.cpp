#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "orvane/batch_view.hpp"
#include "raw_ring.hpp"
#include "support/throws.hpp"

// Batches that are read where they are, in memory that their producer can still write.
namespace orvane::test {
namespace {

constexpr std::size_t kFirstHeader = 8;
constexpr std::size_t kLen = 4;  // in a header

const BatchBytes kThreeRecords =
    BatchBytes().records({{.type = 1, .seqNo = 2, .data = bytesOf("hello")},
                          {.type = 7, .seqNo = 3, .data = Bytes(60, 'x')},
                          {.type = 2, .seqNo = 4}});

class RingReaderInPlace : public testing::Test {
 protected:
  // The records up to the end of the batch in hand.
  std::vector<Record> rest() {
    std::vector<Record> records;
    for (ShmBatch::Entry entry(nullptr); ring.next(entry);) {
      records.push_back(recordOf(entry));
    }
    return records;
  }

  static Record recordOf(const ShmBatch::Entry& entry) {
    const pvk_shm_message_t& header = entry.header;
    EXPECT_EQ(entry.data == nullptr, header.len == 0);
    return {header.type,      header.seqNo,
            header.segmentNo, header.segmentDone,
            header.segAlg,    header.segParam1,
            header.segParam2, header.segParam3,
            header.magic,     Bytes(entry.data, entry.data + header.len)};
  }

  // What BatchView says of the same bytes.
  static testing::AssertionResult isRefusedAsByView(const Bytes& batch,
                                                    const std::function<void()>& call) {
    try {
      const BatchView view(batch.data(), batch.size());
    } catch (const Ox_ErrnoException& e) {
      return throwsErrno(e.status(), e.message(), call);
    }
    return testing::AssertionFailure() << "BatchView takes it";
  }

  RingReader ring{kRing};
  RawProducer producer{ring};
};

TEST_F(RingReaderInPlace, ReturnsNothingFromAnEmptyRing) {
  EXPECT_FALSE(ring.receiveInPlace());
}

TEST_F(RingReaderInPlace, ReturnsAllRecordsOfABatch) {
  producer.publish(kThreeRecords.bytes());
  ASSERT_TRUE(ring.receiveInPlace());
  EXPECT_EQ(rest(), recordsOf(kThreeRecords.bytes()));
  ShmBatch::Entry entry(nullptr);
  EXPECT_FALSE(ring.next(entry)) << "there is no more when it is asked again";
}

TEST_F(RingReaderInPlace, ReturnsARecordOfOneByte) {
  const Bytes batch = BatchBytes().records({{.data = bytesOf("x")}, {.seqNo = 1}}).bytes();
  producer.publish(batch);
  ASSERT_TRUE(ring.receiveInPlace());
  EXPECT_EQ(rest(), recordsOf(batch));
}

TEST_F(RingReaderInPlace, ReturnsTheBatchesInTheirOrder) {
  const Bytes first = BatchBytes().records({{.seqNo = 1}}).bytes();
  const Bytes second = BatchBytes().records({{.seqNo = 2}, {.seqNo = 3}}).bytes();
  for (const Bytes& batch : {first, second, kThreeRecords.bytes(), BatchBytes().bytes()}) {
    producer.publish(batch);
  }
  for (const Bytes& batch : {first, second, kThreeRecords.bytes(), BatchBytes().bytes()}) {
    ASSERT_TRUE(ring.receiveInPlace());
    EXPECT_EQ(rest(), recordsOf(batch));
    ring.answer(responseOf(0));
  }
  EXPECT_FALSE(ring.receiveInPlace());
}

TEST_F(RingReaderInPlace, GivesTheRoomBackWhenTheBatchIsAnswered) {
  producer.publish(kThreeRecords.bytes());
  ASSERT_TRUE(ring.receiveInPlace());
  rest();
  EXPECT_EQ(producer.servers.get64(kHead), 0U);
  ring.answer(responseOf(0));
  EXPECT_EQ(producer.servers.get64(kHead), 256U);
}

TEST_F(RingReaderInPlace, CanBeAnsweredBeforeItsEnd) {
  producer.publish(kThreeRecords.bytes());
  producer.publish(BatchBytes().records({{.seqNo = 9}}).bytes());
  ASSERT_TRUE(ring.receiveInPlace());
  ShmBatch::Entry entry(nullptr);
  ASSERT_TRUE(ring.next(entry));
  ring.answer(responseOf(0));
  ASSERT_TRUE(ring.receiveInPlace());
  EXPECT_EQ(rest(), (std::vector<Record>{{.seqNo = 9}}));
}

TEST_F(RingReaderInPlace, AlternatesWithCopies) {
  producer.publish(kThreeRecords.bytes());
  producer.publish(kThreeRecords.bytes());
  producer.publish(kThreeRecords.bytes());
  ASSERT_TRUE(ring.receiveInPlace());
  EXPECT_EQ(rest().size(), 3U);
  ring.answer(responseOf(0));
  EXPECT_EQ(received(ring), kThreeRecords.bytes());
  ring.answer(responseOf(0));
  ASSERT_TRUE(ring.receiveInPlace());
  EXPECT_EQ(rest().size(), 3U);
}

TEST_F(RingReaderInPlace, ShowsTheProducersMemory) {
  producer.publish(kThreeRecords.bytes());
  ASSERT_TRUE(ring.receiveInPlace());
  ShmBatch::Entry entry(nullptr);
  ASSERT_TRUE(ring.next(entry));
  ASSERT_EQ(Bytes(entry.data, entry.data + 5), bytesOf("hello"));
  std::memcpy(producer.file.at(kData + 16 + kFirstHeader + 48), "HELLO", 5);
  EXPECT_EQ(Bytes(entry.data, entry.data + 5), bytesOf("HELLO")) << "it is no copy";
}

TEST_F(RingReaderInPlace, ReadsABatchAcrossTheEndOfTheRing) {
  for (int i = 0; i < 4; ++i) {
    producer.publish(Bytes(262064));
    ASSERT_EQ(received(ring).size(), 262064U);
    ring.answer(responseOf(0));
  }
  Bytes data(1000);
  for (std::size_t i = 0; i < data.size(); ++i) {
    data[i] = static_cast<unsigned char>(i * 7);
  }
  const Bytes batch = BatchBytes().records({{.type = 1, .data = data}, {.type = 2}}).bytes();
  Bytes frame = hex("5004000000000000 0500000000000000");  // 1104 bytes, the fifth frame
  frame[0] = static_cast<unsigned char>(batch.size());
  frame[1] = static_cast<unsigned char>(batch.size() >> 8);
  frame.insert(frame.end(), batch.begin(), batch.end());
  std::memcpy(producer.file.at(kData + 1048320), frame.data(), 256);
  std::memcpy(producer.file.at(kData), frame.data() + 256, frame.size() - 256);
  producer.moveTail(1048320 + 1152);
  ASSERT_TRUE(ring.receiveInPlace());
  EXPECT_EQ(rest(), recordsOf(batch));
}

TEST_F(RingReaderInPlace, RefusesWhatIsNoBatchAtAll) {
  for (const Bytes& batch : {Bytes(), bytesOf("1234567"), BatchBytes().put32(0, 1).bytes(),
                             BatchBytes().put32(4, 1).bytes(), BatchBytes().append({0}).bytes()}) {
    producer.publish(batch);
    ASSERT_TRUE(ring.receiveInPlace());
    EXPECT_TRUE(isRefusedAsByView(batch, [this] { rest(); }));
    EXPECT_TRUE(isRefusedAsByView(batch, [this] { rest(); })) << "also when it is asked again";
    ring.answer(responseOf(1000, "no batch"));
  }
}

TEST_F(RingReaderInPlace, ReturnsTheRecordsBeforeAMistake) {
  constexpr std::size_t kSecondHeader = 61;
  for (const Bytes& batch :
       {BatchBytes(kThreeRecords).put32(kSecondHeader + kLen, 109).bytes(),
        BatchBytes(kThreeRecords).put32(kSecondHeader + kLen, 0xffffffff).bytes(),
        BatchBytes(kThreeRecords).put32(kSecondHeader + 44, 1).bytes()}) {
    producer.publish(batch);
    ASSERT_TRUE(ring.receiveInPlace());
    ShmBatch::Entry entry(nullptr);
    ASSERT_TRUE(ring.next(entry));
    EXPECT_EQ(entry.header.seqNo, 2U);
    EXPECT_TRUE(isRefusedAsByView(batch, [&] { ring.next(entry); }));
    EXPECT_EQ(entry.header.seqNo, 2U) << "it is as it was";
    ring.answer(responseOf(1000, "no batch"));
  }
}

TEST_F(RingReaderInPlace, RefusesAHeaderThatIsNotWholeAndBytesThatAreLeftOver) {
  for (const Bytes& batch :
       {BatchBytes(kThreeRecords).cut(216).bytes(), BatchBytes(kThreeRecords).cut(170).bytes(),
        BatchBytes(kThreeRecords).append({0}).bytes()}) {
    producer.publish(batch);
    ASSERT_TRUE(ring.receiveInPlace());
    EXPECT_TRUE(isRefusedAsByView(batch, [this] { rest(); }));
    ring.answer(responseOf(1000, "no batch"));
  }
}

TEST_F(RingReaderInPlace, ReportsABrokenRule) {
  producer.publish(kThreeRecords.bytes());
  producer.moveTail(kRing + 1);
  EXPECT_TRUE(
      throwsErrno(32, "The producer broke the rules of its ring: its tail is not where it can be",
                  [this] { ring.receiveInPlace(); }));
}

// The length of a record changes all the time between one that fits and one that does not. A reader
// that fetched it twice would check one of them and use the other.
TEST_F(RingReaderInPlace, FetchesAHeaderOnce) {
  constexpr std::uint64_t kFrame = 128;  // what this batch takes in the ring
  const Bytes batch = BatchBytes().records({{.type = 1, .data = bytesOf("data")}}).bytes();
  const MappedFile again(ring.producersFile(), true);
  const auto lenAt = [&](std::uint64_t frame) {
    return reinterpret_cast<std::uint32_t*>(
        again.at(kData + frame * kFrame % kRing + 16 + kFirstHeader + kLen));
  };
  std::atomic<std::uint32_t*> len = lenAt(0);
  std::atomic<bool> stopped = false;
  std::thread writer([&] {
    while (!stopped) {
      __atomic_store_n(len.load(), 0x00000080U, __ATOMIC_RELAXED);  // 2^31
      __atomic_store_n(len.load(), 0x04000000U, __ATOMIC_RELAXED);  // 4
    }
  });
  std::uint64_t taken = 0;
  std::uint64_t refused = 0;
  while (taken + refused < 200'000 || taken < 1000 || refused < 1000) {
    producer.publish(batch);
    len = lenAt(taken + refused);
    EXPECT_TRUE(ring.receiveInPlace());
    ShmBatch::Entry entry(nullptr);
    try {
      EXPECT_TRUE(ring.next(entry));
      EXPECT_EQ(entry.header.len, 4U);
      EXPECT_FALSE(ring.next(entry));
      ++taken;
    } catch (const Ox_ErrnoException& e) {
      EXPECT_EQ(e.message(),
                "Could not read batch entry 0 at offset 8 because its data needs 2147483648 bytes "
                "but only 4 are there");
      ++refused;
    }
    ring.answer(responseOf(0));
    if (HasFailure()) {
      break;
    }
  }
  stopped = true;
  writer.join();
}

}  // namespace
}  // namespace orvane::test
