#pragma once

#include <iosfwd>
#include <queue/message_queue.hpp>
#include <string>
#include <vector>

#include "orvane/records.hpp"

namespace orvane::test {

struct Answer {
  ox_status_t status;
  std::string text;

  bool operator==(const Answer&) const = default;
};
std::ostream& operator<<(std::ostream& stream, const Answer& answer);

// Takes the answers that wait, in the order in which a producer would.
std::vector<Answer> takeAnswers(boost::interprocess::message_queue& responseQueue);

// The last answer of a server that is stopped.
constexpr char kStoppedNotice[] = "the server was stopped: send again what it did not acknowledge";

// The next answer.
Answer awaitAnswer(boost::interprocess::message_queue& answers);

}  // namespace orvane::test
