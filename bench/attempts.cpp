#include "attempts.hpp"

#include <cstdio>
#include <exception>
#include <optional>
#include <utility>

namespace bench {
namespace {

// The text of the exception that `work` throws.
std::optional<std::string> failureOf(const std::function<void()>& work) try {
  work();
  return std::nullopt;
} catch (const std::exception& e) {
  return e.what();
}

std::string quoted(const std::string& text) {
  std::string all = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') {
      all += '\\';
    }
    all += static_cast<unsigned char>(c) < ' ' ? ' ' : c;
  }
  return all + '"';
}

}  // namespace

Attempts::Attempts(std::string question) : question(std::move(question)) {}

void Attempts::measure(const std::string& fields, int round, const std::function<void()>& work) {
  if (leftOut.contains(fields)) {
    return;
  }
  const auto first = failureOf(work);
  if (!first) {
    return;
  }
  std::fprintf(stderr, "tried again: %s (%s)\n", fields.c_str(), first->c_str());
  const auto second = failureOf(work);
  if (!second) {
    return;
  }
  leftOut.insert(fields);
  std::fprintf(stderr, "left out from round %d on: %s (%s)\n", round, fields.c_str(),
               second->c_str());
  std::printf("{%s,%s,\"round\":%d,\"left_out\":%s}\n", field("question", question).c_str(),
              fields.c_str(), round, quoted(*second).c_str());
  std::fflush(stdout);
}

std::string field(const std::string& name, const std::string& value) {
  return quoted(name) + ":" + quoted(value);
}

std::string field(const std::string& name, std::size_t value) {
  return quoted(name) + ":" + std::to_string(value);
}

}  // namespace bench
