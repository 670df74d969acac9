#pragma once

#include "ox/status.hpp"

namespace orvane {

// The statuses with which a server reports errors, in responses and over leases; `orvaned --help`
// lists them. They begin at 1000, so that a producer can distinguish them from the statuses that
// its own library throws. kStatusMeanings explains each of them.
constexpr ox_status_t kBadBatch = 1000;
constexpr ox_status_t kOutOfOrder = 1001;
constexpr ox_status_t kInvalidRecord = 1002;
constexpr ox_status_t kStoreFailed = 1003;
constexpr ox_status_t kServerEnding = 1004;
constexpr ox_status_t kLimitReached = 1005;
constexpr ox_status_t kNoPair = 1006;
constexpr ox_status_t kBadRequest = 1007;
constexpr ox_status_t kWorkerDied = 1008;

// A status with its short name and its meaning, as texts for people.
struct StatusMeaning {
  ox_status_t status;
  const char* name;
  const char* meaning;
};

constexpr StatusMeaning kStatusMeanings[] = {
    {kBadBatch, "bad batch", "a message is not a batch of records; none of it was stored"},
    {kOutOfOrder, "out of order", "a sequence number went back or came twice"},
    {kInvalidRecord, "invalid record",
     "a record that is not allowed at this point of the stream, or not with data"},
    {kStoreFailed, "store failed",
     "the store could not take the data: disk full, no permission, ..."},
    {kServerEnding, "server ending", "the server is going; an open stream was cut off"},
    {kLimitReached, "limit reached", "no lease: the user or the server has all the leases it may"},
    {kNoPair, "no pair", "no lease: the queue pair or ring could not be made"},
    {kBadRequest, "bad request", "no lease: the server does not understand what was asked"},
    {kWorkerDied, "worker died",
     "what served the queue died; what it did not acknowledge may be lost"},
};

}  // namespace orvane
