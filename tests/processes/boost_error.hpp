#pragma once

#include <boost/interprocess/exceptions.hpp>

namespace orvane::test {

// The error code of the Exception that `call` throws; any other exception passes through.
template <class Exception, class Call>
boost::interprocess::error_code_t codeOf(const Call& call) {
  try {
    call();
  } catch (const Exception& e) {
    return e.get_error_code();
  }
  return boost::interprocess::no_error;
}

}  // namespace orvane::test
