#include "support/throws.hpp"

#include <cstring>
#include <exception>
#include <typeinfo>

#include "ox/errno_exception.hpp"

namespace orvane::test {

testing::AssertionResult throwsErrno(ox_status_t status, const std::string& message,
                                     const std::function<void()>& call) {
  try {
    call();
  } catch (const Ox_ErrnoException& e) {
    if (e.status() == status && e.message() == message &&
        std::strcmp(e.what(), message.c_str()) == 0 && e.detail().empty() &&
        typeid(e) == typeid(Ox_ErrnoException)) {
      return testing::AssertionSuccess();
    }
    return testing::AssertionFailure() << "thrown:   " << e.status() << " \"" << e.message()
                                       << "\", what \"" << e.what() << "\", detail \"" << e.detail()
                                       << "\"\nexpected: " << status << " \"" << message << '"';
  } catch (const std::exception& e) {
    return testing::AssertionFailure() << "thrown: " << typeid(e).name() << ": " << e.what();
  }
  return testing::AssertionFailure() << "nothing was thrown";
}

}  // namespace orvane::test
