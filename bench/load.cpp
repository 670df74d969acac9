#include "load.hpp"

#include <emmintrin.h>

#include <cstring>
#include <numeric>
#include <stdexcept>
#include <string>

namespace bench {
namespace {

using orvane::BatchView;
using orvane::pvk_shm_message_t;
using orvane::ShmBatch;

// 16 at a time; the compiler's own code would be what is measured otherwise.
std::uint64_t sumOf(Bytes data) {
  __m128i sums = _mm_setzero_si128();
  const std::size_t whole = data.size() / sizeof sums * sizeof sums;
  for (std::size_t i = 0; i < whole; i += sizeof sums) {
    __m128i some;
    std::memcpy(&some, &data[i], sizeof some);
    sums = _mm_add_epi64(sums, _mm_sad_epu8(some, _mm_setzero_si128()));
  }
  std::uint64_t halves[2];
  std::memcpy(halves, &sums, sizeof halves);
  return std::accumulate(data.begin() + static_cast<std::ptrdiff_t>(whole), data.end(),
                         halves[0] + halves[1]);
}

}  // namespace

Load::Load(std::size_t dataSize) : bytes(dataSize) {
  std::iota(bytes.begin(), bytes.end(), static_cast<unsigned char>(1));
}

pvk_shm_message_t Load::header(std::uint64_t number) const {
  pvk_shm_message_t header;
  header.type = orvane::kRecordSegmentData;
  header.len = static_cast<std::uint32_t>(bytes.size());
  header.seqNo = number;
  header.segmentDone = 0;
  return header;
}

std::size_t Load::recordSize() const {
  return pvk_shm_message_t::kSerializedSize + bytes.size();
}

std::size_t Load::batchSize(std::size_t limit) const {
  constexpr std::size_t kMetaData = ShmBatch::MetaData::kSerializedSize;
  const std::size_t records = limit < kMetaData ? 0 : (limit - kMetaData) / recordSize();
  return records == 0 ? 0 : kMetaData + records * recordSize();
}

pvk_shm_message_t closeRecord(std::uint64_t number) {
  pvk_shm_message_t header;
  header.type = orvane::kRecordClose;
  header.seqNo = number;
  return header;
}

Packer::Packer(unsigned char* batch)
    : begin(batch), end(batch + ShmBatch::MetaData::kSerializedSize) {}

void Packer::add(const pvk_shm_message_t& header, Bytes data) {
  end = header.serializeToBuffer(end);
  if (!data.empty()) {
    std::memcpy(end, data.data(), data.size());
    end += data.size();
  }
  ++metaData.numEntries;
}

std::size_t Packer::finish() {
  metaData.serializeToBuffer(begin);
  return static_cast<std::size_t>(end - begin);
}

void Tally::take(const pvk_shm_message_t& header, const unsigned char* data, Work work) {
  if (header.type != orvane::kRecordSegmentData) {
    ended = ended || header.type == orvane::kRecordClose;
    return;
  }
  ++sent.records;
  sent.numbers += header.seqNo;
  dataBytes += header.len;
  if (work == Work::bytes) {
    dataSum += sumOf({data, header.len});
  }
}

void Tally::takeBatch(Bytes message, Work work) {
  for (const ShmBatch::Entry& entry : BatchView(message.data(), message.size())) {
    take(entry.header, entry.data, work);
  }
}

void Tally::takeRecord(Bytes message, Work work) {
  pvk_shm_message_t header;
  if (message.size() < pvk_shm_message_t::kSerializedSize) {
    throw std::runtime_error("a message is too short for a record");
  }
  const unsigned char* const data = header.deserializeFromBuffer(message.data());
  if (message.size() != pvk_shm_message_t::kSerializedSize + header.len) {
    throw std::runtime_error("a message has not the size of its record");
  }
  take(header, data, work);
}

void Tally::require(const Load& load, const Sent& expected, Work work) const {
  const std::uint64_t count = expected.records;
  const std::uint64_t sum = work == Work::bytes ? count * sumOf(load.data()) : 0;
  if (!ended || sent.records != count || sent.numbers != expected.numbers ||
      dataBytes != count * load.data().size() || dataSum != sum) {
    throw std::runtime_error("what arrived is not what was sent: " + std::to_string(sent.records) +
                             " of " + std::to_string(count) + " records");
  }
}

}  // namespace bench
