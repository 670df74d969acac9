#pragma once

#include <string>

#include "orvane/export.hpp"

namespace orvane {

// The name of the queue on which the server answers what arrives on `msgQueueName`: that name
// followed by "Response". One rule for writer and server.
ORVANE_API std::string getMessageQueueResponseName(const std::string& msgQueueName);

}  // namespace orvane
