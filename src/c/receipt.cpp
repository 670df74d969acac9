#include "c/receipt.hpp"

#include <algorithm>
#include <cstdio>
#include <string>

#include "c/call.hpp"

using orvane::StreamEnd;

static_assert(ORVANE_END_CLOSED == static_cast<int>(StreamEnd::closed) &&
              ORVANE_END_STOPPED == static_cast<int>(StreamEnd::stopped) &&
              ORVANE_END_CUT_OFF == static_cast<int>(StreamEnd::cutOff) &&
              ORVANE_END_BROKEN == static_cast<int>(StreamEnd::broken));

namespace orvane::c {

void requireSize(const orvane_receipt* to) {
  if (to != nullptr && to->size <= sizeof to->size) {
    throw StreamError(ORVANE_INVALID_ARGUMENT,
                      "The size of the receipt is " + std::to_string(to->size) +
                          ": empty it with orvane_receipt_init()",
                      Certainty::notStored);
  }
}

// The server's ids are much shorter than the array.
void copyReceipt(const Receipt& from, orvane_receipt* to) noexcept {
  if (to == nullptr) {
    return;
  }
  orvane_receipt whole = {};
  whole.size = sizeof whole;
  from.stream.copy(whole.stream, sizeof whole.stream - 1);
  whole.records = from.records;
  whole.bytes = from.bytes;
  whole.segments = from.segments;
  whole.end = static_cast<int>(from.end);
  copyKnown(whole, to);
}

}  // namespace orvane::c

extern "C" {

orvane_receipt* orvane_receipt_init(orvane_receipt* receipt, size_t size) {
  if (receipt != nullptr) {
    std::memset(receipt, 0, size);
    receipt->size = size;
  }
  return receipt;
}

int orvane_receipt_parse(const char* text, orvane_receipt* receipt) {
  orvane::c::Failure failure;
  return statusOf(failure, [&] {
    orvane::c::requireSize(receipt);
    const auto parsed = text != nullptr ? orvane::parseReceipt(text) : std::nullopt;
    if (!parsed || receipt == nullptr || parsed->stream.size() >= sizeof receipt->stream) {
      return ORVANE_INVALID_ARGUMENT;
    }
    orvane::c::copyReceipt(*parsed, receipt);
    return ORVANE_OK;
  });
}

int orvane_receipt_text(const orvane_receipt* receipt, char* text, size_t size) {
  orvane::c::Failure failure;
  int length = -1;
  statusOf(failure, [&] {
    if (receipt != nullptr && receipt->size >= sizeof *receipt &&
        receipt->end >= ORVANE_END_CLOSED && receipt->end <= ORVANE_END_BROKEN) {
      const std::string line =
          textOf(orvane::Receipt{receipt->stream, receipt->records, receipt->bytes,
                                 receipt->segments, static_cast<StreamEnd>(receipt->end)});
      length = std::snprintf(text, size, "%s", line.c_str());
    }
    return ORVANE_OK;
  });
  return length;
}

}  // extern "C"
