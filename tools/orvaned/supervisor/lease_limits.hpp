#pragma once

#include <sys/socket.h>

#include <cstddef>
#include <list>
#include <string>

#include "leases/lease_connection.hpp"
#include "options.hpp"
#include "supervisor/pair_processes.hpp"

namespace orvaned {

using Pairs = std::list<PairProcesses>;

// The reason why the producer may not have another lease beside its `pending` requests; empty if it
// may.
std::string limitReachedBy(const ucred& producer, std::size_t pending, const Options& options,
                           const Pairs& pairs);

// The reason why there is no memory for what was requested; empty if there is.
std::string noRoomFor(const LeaseConnection& request, const Options& options, const Pairs& pairs);

}  // namespace orvaned
