#include "orvane/queue_name.hpp"

namespace orvane {

std::string getMessageQueueResponseName(const std::string& msgQueueName) {
  return msgQueueName + "Response";
}

}  // namespace orvane
