#include "ox/errno_exception.hpp"

#include <utility>

struct Ox_ErrnoException::Texts {
  std::string message;
  std::string detail;
};

Ox_ErrnoException::Ox_ErrnoException(ox_status_t status, std::string message, std::string detail)
    : status_(status),
      texts_(std::make_shared<const Texts>(Texts{std::move(message), std::move(detail)})) {}

Ox_ErrnoException::Ox_ErrnoException(const Ox_ErrnoException&) noexcept = default;
Ox_ErrnoException& Ox_ErrnoException::operator=(const Ox_ErrnoException&) noexcept = default;
Ox_ErrnoException::~Ox_ErrnoException() = default;

ox_status_t Ox_ErrnoException::status() const noexcept {
  return status_;
}
const std::string& Ox_ErrnoException::message() const noexcept {
  return texts_->message;
}
const std::string& Ox_ErrnoException::detail() const noexcept {
  return texts_->detail;
}
const char* Ox_ErrnoException::what() const noexcept {
  return texts_->message.c_str();
}
