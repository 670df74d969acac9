// Every text form, over any values and any state of the caller's stream.
//
// Reaches the formatting code, which no byte format leads to: numbers under hexadecimal, showbase
// and a grouping locale, names and messages with percent signs, the password that must not show.

#include <fuzzer/FuzzedDataProvider.h>
#include <orvane/orvane.hpp>

#include <cstdio>
#include <locale>
#include <sstream>
#include <string>

#include "require.hpp"
#include "some_header.hpp"

using namespace orvane;

namespace {

struct Grouping : std::numpunct<char> {
  char do_thousands_sep() const override { return ','; }
  std::string do_grouping() const override { return "\3"; }
};

void headerReadsBack(const pvk_shm_message_t& header) {
  std::ostringstream text;
  text << header;
  pvk_shm_message_t back;
  const int fields =
      std::sscanf(text.str().c_str(), "(%lu,%u,%u,%u,%lu,%u,%u,%u,%u,%u)", &back.seqNo, &back.type,
                  &back.len, &back.segAlg, &back.segmentNo, &back.segmentDone, &back.segParam1,
                  &back.segParam2, &back.segParam3, &back.magic);
  REQUIRE(fields == 10);
  REQUIRE(back == header);
}

void batchPrints(std::ostream& stream, pvk_shm_message_t header, const std::string& data) {
  header.len = static_cast<std::uint32_t>(data.size());
  const ShmBatch::Entry entry(header, reinterpret_cast<const unsigned char*>(data.data()));
  ShmBatch batch(8 + 48 + data.size());
  batch.pushBack(entry);
  stream << batch << ShmBatch::Entry(header, nullptr);

  std::ostringstream one;
  one << entry;
  std::ostringstream all;
  all << batch;
  REQUIRE(all.str().size() > one.str().size());
  REQUIRE(all.str().compare(all.str().size() - one.str().size(), std::string::npos, one.str()) ==
          0);
}

void passwordStaysInside(std::ostream& stream, FuzzedDataProvider& input) {
  const std::string other = input.ConsumeRandomLengthString(20);
  const std::string password = "<password>";
  ServerInfo info(other, other, password, other, other, other, other);
  info.setFlags(input.ConsumeIntegral<unsigned int>());
  info.setReconnectTimeout(input.ConsumeIntegral<int>());
  info.setBandwidthLimit(input.ConsumeIntegral<int>());
  info.setFPType(input.ConsumeIntegral<unsigned char>());
  info.setClusterMode(input.ConsumeIntegral<unsigned int>());
  info.setClusterName(other);
  const std::ios_base::fmtflags before = stream.flags();
  stream << info;
  REQUIRE(stream.flags() == before);
  std::ostringstream text;
  text << info;
  REQUIRE(other.find(password) != std::string::npos ||
          text.str().find(password) == std::string::npos);
}

void loggerKeepsItsPrefix(FuzzedDataProvider& input) {
  static std::string line;
  ox::setSink([](ox::Kind, int, const char* text) { line = text; });
  std::string message = input.ConsumeRandomLengthString(6000);
  for (char& character : message) {
    if (character == '%' || character == '\0') {
      character = '.';  // what the sink would fill in is the caller's affair
    }
  }
  server::Logger("fuzz").log(server::LEVEL_INFO, "f", 0, "%s", message.c_str());
  REQUIRE(line == "fuzz::f: " + message.substr(0, 4095));
  ox::setSink(nullptr);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  FuzzedDataProvider input(data, size);
  std::ostringstream stream;
  stream.flags(static_cast<std::ios_base::fmtflags>(input.ConsumeIntegral<std::uint16_t>()));
  stream.width(input.ConsumeIntegralInRange<int>(0, 100));
  if (input.ConsumeBool()) {
    stream.imbue(std::locale(std::locale::classic(), new Grouping));
  }
  const pvk_shm_message_t header = someHeader(input);
  stream << header;
  headerReadsBack(header);
  batchPrints(stream, header, input.ConsumeRandomLengthString(8000));
  passwordStaysInside(stream, input);
  loggerKeepsItsPrefix(input);
  return 0;
}
