#pragma once

#include <string>

#include "orvane/export.hpp"

namespace orvane {

// Returns the name of the response queue that belongs to the send queue `msgQueueName`: that name
// followed by "Response". Writer and server both use it.
ORVANE_API std::string getMessageQueueResponseName(const std::string& msgQueueName);

}  // namespace orvane
