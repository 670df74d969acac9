#include "support/answers.hpp"

#include <ostream>
#include <stdexcept>

#include "support/eventually.hpp"

namespace orvane::test {

using boost::interprocess::message_queue;

std::ostream& operator<<(std::ostream& stream, const Answer& answer) {
  return stream << answer.status << " \"" << answer.text << '"';
}

std::vector<Answer> takeAnswers(message_queue& responseQueue) {
  std::vector<Answer> answers;
  pvk_shm_response_t response;
  message_queue::size_type size = 0;
  unsigned priority = 0;
  while (responseQueue.try_receive(&response, sizeof(response), size, priority)) {
    if (size != 132) {
      throw std::runtime_error("an answer of " + std::to_string(size) + " bytes");
    }
    answers.push_back({response.status, response.text});
  }
  return answers;
}

Answer awaitAnswer(boost::interprocess::message_queue& answers) {
  pvk_shm_response_t response;
  boost::interprocess::message_queue::size_type size = 0;
  unsigned priority = 0;
  // Not timed_receive(): a process that waits when the other side is killed waits for ever.
  const auto came = [&] {
    return answers.try_receive(&response, sizeof(response), size, priority);
  };
  return eventually(came) ? Answer{response.status, response.text} : Answer{-1, "no answer came"};
}

}  // namespace orvane::test
