#include <algorithm>
#include <iterator>

#include "orvane/orvane.h"
#include "orvane/server_status.hpp"
#include "orvane/status.hpp"

using orvane::kStatusMeanings;
using orvane::StatusMeaning;

static_assert(ORVANE_INVALID_ARGUMENT == orvane::kStatusInvalidArgument &&
              ORVANE_TIMED_OUT == orvane::kStatusTimedOut &&
              ORVANE_CORRUPT == orvane::kStatusCorruptMagic &&
              ORVANE_NOT_OPEN == orvane::kStatusNotOpen &&
              ORVANE_DOES_NOT_FIT == orvane::kStatusDoesNotFit &&
              ORVANE_NO_SERVER == orvane::kLeaseNoServer &&
              ORVANE_LEASE_LOST == orvane::kLeaseLost &&
              ORVANE_INCOMPLETE == orvane::kStreamIncomplete);
static_assert(ORVANE_BAD_BATCH == orvane::kBadBatch && ORVANE_OUT_OF_ORDER == orvane::kOutOfOrder &&
              ORVANE_INVALID_RECORD == orvane::kInvalidRecord &&
              ORVANE_STORE_FAILED == orvane::kStoreFailed &&
              ORVANE_SERVER_ENDING == orvane::kServerEnding &&
              ORVANE_LIMIT_REACHED == orvane::kLimitReached && ORVANE_NO_PAIR == orvane::kNoPair &&
              ORVANE_BAD_REQUEST == orvane::kBadRequest &&
              ORVANE_WORKER_DIED == orvane::kWorkerDied);

namespace {

constexpr StatusMeaning kOwnMeanings[] = {
    {ORVANE_OK, "success", ""},
    {ORVANE_INVALID_ARGUMENT, "invalid argument", ""},
    {ORVANE_TIMED_OUT, "timed out", ""},
    {ORVANE_CORRUPT, "not a batch", ""},
    {ORVANE_NOT_OPEN, "the stream takes no more data", ""},
    {ORVANE_DOES_NOT_FIT, "the server's messages are too small", ""},
    {ORVANE_NO_SERVER, "no server", ""},
    {ORVANE_LEASE_LOST, "the server ended the lease", ""},
    {ORVANE_INCOMPLETE, "not the whole stream is stored", ""},
    {ORVANE_NO_MEMORY, "no memory", ""},
    {ORVANE_INTERNAL, "an error of orvane itself", ""},
};

template <std::size_t kCount>
const char* nameIn(const StatusMeaning (&meanings)[kCount], int status) {
  const auto* const found =
      std::find_if(std::begin(meanings), std::end(meanings),
                   [status](const StatusMeaning& one) { return one.status == status; });
  return found != std::end(meanings) ? found->name : nullptr;
}

}  // namespace

extern "C" {

const char* orvane_version() {
  return ORVANE_VERSION;
}

const char* orvane_status_text(int status) {
  const char* const own = nameIn(kOwnMeanings, status);
  const char* const servers = nameIn(kStatusMeanings, status);
  return own != nullptr ? own : servers != nullptr ? servers : "unknown status";
}

}  // extern "C"
