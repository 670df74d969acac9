#pragma once

#include <sys/types.h>

#include <atomic>
#include <optional>
#include <string>

#include "confinement_settings.hpp"

namespace orvaned {

// Posts a notice with the reason why the pair is removed (orvane::kWorkerDied), for a producer that
// still uses it. The response queue is opened only if its file belongs to this user, the worker's
// user or `producersUser`; if this process may change its owner, it does so first. It never waits
// for long, but a hostile or broken queue can crash or hang the calling process. So that process is
// permanently confined like a worker, and may open only that one file.
void postNotice(const std::string& queueName, const std::string& reason,
                std::optional<uid_t> producersUser, const Confinement& confinement, pid_t parent,
                std::atomic<int>* refusedCall);

}  // namespace orvaned
