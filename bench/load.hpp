#pragma once

#include <cstdint>
#include <orvane/orvane.hpp>
#include <vector>

#include "link.hpp"

namespace bench {

// The records of a run: all of one size, their data always the same.
class Load {
 public:
  explicit Load(std::size_t dataSize);

  // The header of record `number`.
  orvane::pvk_shm_message_t header(std::uint64_t number) const;
  Bytes data() const { return bytes; }

  // What one record is in a message.
  std::size_t recordSize() const;

  // The largest batch of these records that takes at most `limit` bytes; 0 when not one does.
  std::size_t batchSize(std::size_t limit) const;

 private:
  std::vector<unsigned char> bytes;
};

// The record that ends a run.
orvane::pvk_shm_message_t closeRecord(std::uint64_t number = 0);

// Writes a batch; `batch` has room for what is added.
class Packer {
 public:
  explicit Packer(unsigned char* batch);

  void add(const orvane::pvk_shm_message_t& header, Bytes data);

  // Completes the batch; its size.
  std::size_t finish();

 private:
  unsigned char* const begin;
  unsigned char* end;
  orvane::ShmBatch::MetaData metaData;
};

enum class Work { headers, bytes };

// What a producer sent, before the close record.
struct Sent {
  std::uint64_t records = 0;
  std::uint64_t numbers = 0;  // the sum of the records' numbers
};

// What a consumer found.
struct Tally {
  Sent sent;
  std::uint64_t dataBytes = 0;
  std::uint64_t dataSum = 0;  // of every data byte, for Work::bytes
  bool ended = false;         // the close record came

  void take(const orvane::pvk_shm_message_t& header, const unsigned char* data, Work work);
  void takeBatch(Bytes message, Work work);
  void takeRecord(Bytes message, Work work);

  // Throws unless this is what was sent.
  void require(const Load& load, const Sent& expected, Work work) const;
};

}  // namespace bench
