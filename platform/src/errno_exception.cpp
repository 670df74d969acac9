#include "ox/errno_exception.hpp"

#include <utility>

Ox_ErrnoException::Ox_ErrnoException(ox_status_t status, std::string message, std::string detail)
    : status_(status), message_(std::move(message)), detail_(std::move(detail)) {}

Ox_ErrnoException::Ox_ErrnoException(const Ox_ErrnoException&) = default;
Ox_ErrnoException& Ox_ErrnoException::operator=(const Ox_ErrnoException&) = default;
Ox_ErrnoException::~Ox_ErrnoException() = default;

ox_status_t Ox_ErrnoException::status() const noexcept {
  return status_;
}
const std::string& Ox_ErrnoException::message() const noexcept {
  return message_;
}
const std::string& Ox_ErrnoException::detail() const noexcept {
  return detail_;
}
const char* Ox_ErrnoException::what() const noexcept {
  return message_.c_str();
}
