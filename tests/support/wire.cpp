#include "support/wire.hpp"

#include <ostream>
#include <stdexcept>

namespace orvane::test {
namespace {

constexpr std::uint32_t kBatchMagic = 0xFF00EE11;

void append32(Bytes& bytes, std::uint32_t value) {
  for (int shift = 24; shift >= 0; shift -= 8) {
    bytes.push_back(static_cast<unsigned char>(value >> shift));
  }
}

void append64(Bytes& bytes, std::uint64_t value) {
  append32(bytes, static_cast<std::uint32_t>(value >> 32));
  append32(bytes, static_cast<std::uint32_t>(value));
}

class Reader {
 public:
  explicit Reader(const Bytes& message) : bytes(message) {}

  Bytes take(std::size_t size) {
    if (size > bytes.size() - position) {
      throw std::runtime_error("the message ends at byte " + std::to_string(bytes.size()));
    }
    const auto begin = bytes.begin() + static_cast<std::ptrdiff_t>(position);
    position += size;
    return {begin, begin + static_cast<std::ptrdiff_t>(size)};
  }
  std::uint64_t number(std::size_t size) {
    std::uint64_t value = 0;
    for (unsigned char byte : take(size)) {
      value = value << 8 | byte;
    }
    return value;
  }
  std::uint32_t number32() { return static_cast<std::uint32_t>(number(4)); }
  bool atEnd() const { return position == bytes.size(); }

 private:
  const Bytes& bytes;
  std::size_t position = 0;
};

}  // namespace

Bytes bytesOf(std::string_view text) {
  return {text.begin(), text.end()};
}

Bytes hex(std::string_view digits) {
  Bytes bytes;
  bool high = true;
  for (char c : digits) {
    if (c == ' ' || c == '\n') {
      continue;
    }
    const std::size_t value = std::string_view("0123456789abcdef").find(c);
    if (value > 15) {
      throw std::runtime_error("not a hexadecimal digit");
    }
    if (high) {
      bytes.push_back(static_cast<unsigned char>(value << 4));
    } else {
      bytes.back() |= static_cast<unsigned char>(value);
    }
    high = !high;
  }
  return bytes;
}

std::ostream& operator<<(std::ostream& stream, const Record& record) {
  return stream << "{type " << record.type << ", seqNo " << record.seqNo << ", segmentNo "
                << record.segmentNo << ", done " << record.segmentDone << ", alg " << record.segAlg
                << ", params " << record.segParam1 << ' ' << record.segParam2 << ' '
                << record.segParam3 << ", magic " << record.magic << ", " << record.data.size()
                << " data bytes}";
}

BatchBytes::BatchBytes() {
  append32(content, kBatchMagic);
  append32(content, 0);
}

BatchBytes& BatchBytes::records(std::initializer_list<Record> more) {
  for (const Record& record : more) {
    append32(content, record.type);
    append32(content, static_cast<std::uint32_t>(record.data.size()));
    append64(content, record.seqNo);
    append64(content, record.segmentNo);
    append32(content, record.segmentDone);
    append32(content, record.segAlg);
    append32(content, record.segParam1);
    append32(content, record.segParam2);
    append32(content, record.segParam3);
    append32(content, record.magic);
    append(record.data);
    ++count;
  }
  return put32(4, count);
}

BatchBytes& BatchBytes::put32(std::size_t offset, std::uint32_t value) {
  for (std::size_t i = 0; i < 4; ++i) {
    content.at(offset + i) = static_cast<unsigned char>(value >> (24 - 8 * i));
  }
  return *this;
}

BatchBytes& BatchBytes::flip(std::size_t offset, unsigned char mask) {
  content.at(offset) ^= mask;
  return *this;
}

BatchBytes& BatchBytes::cut(std::size_t size) {
  content.resize(size);
  return *this;
}

BatchBytes& BatchBytes::append(const Bytes& more) {
  content.insert(content.end(), more.begin(), more.end());
  return *this;
}

std::vector<Record> recordsOf(const Bytes& message) {
  Reader reader(message);
  if (reader.number32() != kBatchMagic) {
    throw std::runtime_error("the message is not a batch");
  }
  const std::uint32_t count = reader.number32();
  std::vector<Record> records;
  for (std::uint32_t i = 0; i < count; ++i) {
    Record record;
    record.type = reader.number32();
    const std::uint32_t len = reader.number32();
    record.seqNo = reader.number(8);
    record.segmentNo = reader.number(8);
    record.segmentDone = reader.number32();
    record.segAlg = reader.number32();
    record.segParam1 = reader.number32();
    record.segParam2 = reader.number32();
    record.segParam3 = reader.number32();
    record.magic = reader.number32();
    record.data = reader.take(len);
    records.push_back(record);
  }
  if (!reader.atEnd()) {
    throw std::runtime_error("bytes are left over behind the last record");
  }
  return records;
}

}  // namespace orvane::test
