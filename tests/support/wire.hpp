#pragma once

#include <cstdint>
#include <initializer_list>
#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

// The byte formats once more, independent of the library: what the tests expect is never computed
// by the code under test.
namespace orvane::test {

using Bytes = std::vector<unsigned char>;

Bytes bytesOf(std::string_view text);

// "ff 00 ee 11" (blanks and line ends are skipped) as bytes.
Bytes hex(std::string_view digits);

// A record as it stands in a batch.
struct Record {
  std::uint32_t type = 0;
  std::uint64_t seqNo = 0;
  std::uint64_t segmentNo = 0;
  std::uint32_t segmentDone = 1;
  std::uint32_t segAlg = 0;
  std::uint32_t segParam1 = 0;
  std::uint32_t segParam2 = 0;
  std::uint32_t segParam3 = 0;
  std::uint32_t magic = 0xAABBCCDD;
  Bytes data = {};  // its length is the record's len

  bool operator==(const Record&) const = default;
};
std::ostream& operator<<(std::ostream& stream, const Record& record);

// The bytes of a batch, as a small language:
//   BatchBytes().records({{.type = 1, .data = bytesOf("hello")}}).flip(8, 0x01).cut(60).bytes()
class BatchBytes {
 public:
  BatchBytes();  // the 8 bytes of an empty batch

  BatchBytes& records(std::initializer_list<Record> more);  // appends and counts them
  BatchBytes& put32(std::size_t offset, std::uint32_t value);
  BatchBytes& flip(std::size_t offset, unsigned char mask);
  BatchBytes& cut(std::size_t size);
  BatchBytes& append(const Bytes& more);

  const Bytes& bytes() const { return content; }

 private:
  Bytes content;
  std::uint32_t count = 0;
};

// The records of a whole message; throws std::runtime_error unless it is exactly one batch.
std::vector<Record> recordsOf(const Bytes& message);

}  // namespace orvane::test
