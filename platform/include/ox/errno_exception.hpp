#pragma once

#include <exception>
#include <memory>
#include <string>

#include "ox/export.hpp"
#include "ox/status.hpp"

// A failure with a status, a message for people and a detail text, which may be empty.
//   try { ... } catch (const Ox_ErrnoException& e) { std::cerr << e.status() << ": " << e.what(); }
// Copies share their texts, so copying, which throwing and catching may do, cannot fail.
class OX_API Ox_ErrnoException : public std::exception {
 public:
  Ox_ErrnoException(ox_status_t status, std::string message, std::string detail);
  Ox_ErrnoException(const Ox_ErrnoException&) noexcept;
  Ox_ErrnoException& operator=(const Ox_ErrnoException&) noexcept;
  ~Ox_ErrnoException() override;

  ox_status_t status() const noexcept;
  const std::string& message() const noexcept;
  const std::string& detail() const noexcept;

  // Returns the message as a C string, which is valid as long as this object.
  const char* what() const noexcept override;

 private:
  struct Texts;

  ox_status_t status_;
  std::shared_ptr<const Texts> texts_;
};
