#pragma once

#include <sys/types.h>

#include <atomic>
#include <optional>
#include <string>

#include "confinement_settings.hpp"

namespace orvaned {

// Tells a producer that still uses the pair why it is removed (orvane::kWorkerDied). The response
// queue is opened only when it is a file of this user, of the worker's or of `producersUser`; where
// this process may give files away, it takes the queue first. Waits for nobody for long, but a
// hostile or broken queue can crash or hang whoever calls this: the process is confined as a worker
// is, for good, and may open that one file.
void postNotice(const std::string& queueName, const std::string& reason,
                std::optional<uid_t> producersUser, const Confinement& confinement, pid_t parent,
                std::atomic<int>* refusedCall);

}  // namespace orvaned
