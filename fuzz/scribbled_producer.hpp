#pragma once

#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <orvane/orvane.hpp>
#include <vector>

#include "ring/raw_ring.hpp"
#include "scribbler.hpp"

constexpr std::uint64_t kWant = 136;
constexpr std::size_t kFrameHeader = 16;
constexpr std::size_t kLargestBatch = orvane::test::kRing / 4 - kFrameHeader;

// Records that are valid one after the other, nearly always.
class SomeRecords {
 public:
  // A batch of them, of at most what a frame holds.
  const orvane::ShmBatch& batch(FuzzedDataProvider& input) {
    static orvane::ShmBatch batch(kLargestBatch);
    batch.clear();
    for (int i = input.ConsumeIntegralInRange<int>(0, 5); i >= 0; --i) {
      const orvane::pvk_shm_message_t header = next(input);
      const orvane::test::Bytes data(header.len, input.ConsumeIntegral<unsigned char>());
      const orvane::ShmBatch::Entry entry(header, data.data());
      if (batch.canStore(entry)) {
        batch.pushBack(entry);
      }
    }
    return batch;
  }

 private:
  orvane::pvk_shm_message_t next(FuzzedDataProvider& input) {
    orvane::pvk_shm_message_t header;
    header.type = input.PickValueInArray({0U, 1U, 1U, 1U, 1U, 2U, 2U, 3U, 4U, 9U});
    seqNo = header.type == orvane::kRecordOpen ? 0 : seqNo + (seqNo == 0 ? 2 : 1);
    segmentNo = header.type == orvane::kRecordOpen ? 0 : segmentNo;
    header.seqNo = seqNo;
    header.segmentNo = segmentNo;
    if (header.type == orvane::kRecordSegmentData || header.type == 9) {
      const std::uint32_t sizes[] = {100, 100, 100, 4096, 30000, kLargestBatch - 56};
      header.len = input.ConsumeIntegralInRange<std::uint32_t>(0, input.PickValueInArray(sizes));
      header.segmentDone = 0;
    } else if (header.type != orvane::kRecordOpen) {
      ++segmentNo;
    }
    if (input.ConsumeIntegralInRange<int>(0, 15) == 15) {
      header.seqNo = input.ConsumeIntegral<std::uint64_t>();
      header.segmentNo = input.ConsumeIntegral<std::uint64_t>();
    }
    return header;
  }

  std::uint64_t seqNo = 0;
  std::uint64_t segmentNo = 0;
};

// Sends valid frames, and says where to change what of them.
class ScribbledProducer {
 public:
  explicit ScribbledProducer(const orvane::RingReader& ring)
      : producersFile(ring.producersFile()),
        serversFile(ring.serversFile()),
        page(producersFile, true),
        servers(serversFile) {}

  void send(FuzzedDataProvider& input) {
    frames.clear();
    for (int i = input.ConsumeIntegralInRange<int>(0, 4); i > 0; --i) {
      const orvane::ShmBatch& batch = records.batch(input);
      const std::uint64_t size = (kFrameHeader + batch.getRawSize() + 63) / 64 * 64;
      if (tail + size - servers.get64(orvane::test::kHead) > orvane::test::kRing) {
        break;
      }
      const std::uint64_t header[] = {batch.getRawSize(), ++number};
      write(tail, header, sizeof header);
      write(tail + kFrameHeader, batch.getRaw(), batch.getRawSize());
      frames.push_back(tail);
      tail += size;
    }
    page.put64(orvane::test::kTail, tail);
  }

  std::vector<Change> changes(FuzzedDataProvider& input) const {
    std::vector<Change> list;
    for (int i = input.ConsumeIntegralInRange<int>(0, 6); i > 0; --i) {
      list.push_back(change(input));
    }
    return list;
  }

  unsigned char* counter() const { return page.at(orvane::test::kTail); }

 private:
  void write(std::uint64_t position, const void* from, std::size_t size) const {
    const std::uint64_t begin = position % orvane::test::kRing;
    const std::size_t first = std::min<std::size_t>(size, orvane::test::kRing - begin);
    std::memcpy(page.at(orvane::test::kData + begin), from, first);
    std::memcpy(page.at(orvane::test::kData), static_cast<const char*>(from) + first, size - first);
  }

  Change change(FuzzedDataProvider& input) const {
    const int what = input.ConsumeIntegralInRange<int>(0, 7);
    if (what == 0) {
      return someChange(input, page, producersFile, orvane::test::kTail, tail);
    }
    if (what == 1) {
      const std::uint64_t places[] = {orvane::test::kNap, kWant, orvane::test::kBlocked,
                                      orvane::test::kAnswersTaken};
      return someChange(input, page, producersFile, input.PickValueInArray(places), 16);
    }
    if (what == 2) {  // of the file that it may only read
      const auto offset = input.ConsumeIntegralInRange<std::uint64_t>(0, 8191);
      return {&servers, serversFile, offset, 4096, Change::hole, false, 0};
    }
    const std::uint64_t frame =
        frames.empty() ? tail
                       : frames[input.ConsumeIntegralInRange<std::size_t>(0, frames.size() - 1)];
    if (what == 3) {  // a size that is right for one moment, and wrong for the next
      return {&page,
              producersFile,
              orvane::test::kData + frame % orvane::test::kRing,
              someNumber(input, kLargestBatch),
              Change::word64,
              true,
              0};
    }
    const std::uint64_t limit =
        what == 7 ? orvane::test::kRing - 1 : 127;  // metadata and the first headers
    const auto inFrame = input.ConsumeIntegralInRange<std::uint64_t>(0, limit);
    return someChange(input, page, producersFile,
                      orvane::test::kData + (frame + inFrame) % orvane::test::kRing, 100);
  }

  const int producersFile;
  const int serversFile;
  const orvane::test::MappedFile page;
  const orvane::test::MappedFile servers;
  SomeRecords records;
  std::vector<std::uint64_t> frames;  // of the last send()
  std::uint64_t tail = 0;
  std::uint64_t number = 0;
};
