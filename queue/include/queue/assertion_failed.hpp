#pragma once

// Part of queue/message_queue.hpp. Boost calls these two functions where its own assertion fails,
// once BOOST_ENABLE_ASSERT_HANDLER is defined. A program that has its own cannot use this header.

#include <boost/assert.hpp>
#include <boost/interprocess/exceptions.hpp>
#include <cstring>

namespace boost {

// When a peer dies inside the queue, the next wait on the queue's condition variable fails. Boost
// only asserts that it does not: without the assertion it would spin for ever, past its deadline,
// and with the usual assertion it would abort the process. Only the wait may throw. In all other
// places the failed expression is in an unlock, which runs in destructors, so they do nothing.
inline void assertion_failed(char const*, char const* function, char const*, long) {
  if (std::strstr(function, "posix_condition::") != nullptr &&
      std::strstr(function, "wait") != nullptr) {
    throw interprocess::lock_exception(interprocess::not_recoverable);
  }
}

inline void assertion_failed_msg(char const* expression, char const*, char const* function,
                                 char const* file, long line) {
  assertion_failed(expression, function, file, line);
}

}  // namespace boost
