#pragma once

#include <ox/status.hpp>

namespace orvaned {

// What the server answers with when something went wrong; --help lists them. They begin at 1000, so
// that a producer can tell them from what its own library throws.
constexpr ox_status_t kBadBatch = 1000;
constexpr ox_status_t kOutOfOrder = 1001;
constexpr ox_status_t kUnlawfulRecord = 1002;
constexpr ox_status_t kStoreFailed = 1003;
constexpr ox_status_t kServerEnding = 1004;

struct StatusMeaning {
  ox_status_t status;
  const char* name;
  const char* meaning;
};

constexpr StatusMeaning kStatusMeanings[] = {
    {kBadBatch, "bad batch", "a message is not a batch of records; none of it was stored"},
    {kOutOfOrder, "out of order", "a sequence number went back or came twice"},
    {kUnlawfulRecord, "unlawful record",
     "a record that may not come there, or with data it may not have"},
    {kStoreFailed, "store failed",
     "the store could not take the data: disk full, no permission, ..."},
    {kServerEnding, "server ending", "the server is going; an open stream was cut off"},
};

}  // namespace orvaned
