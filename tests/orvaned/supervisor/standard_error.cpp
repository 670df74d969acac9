#include "standard_error.hpp"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <regex>
#include <sstream>
#include <stdexcept>

namespace orvane::test {
namespace {

constexpr int kTimeoutMilliseconds = 30000;
constexpr char kFiller = '#';

}  // namespace

LogPipe::LogPipe() {
  int ends[2] = {};
  if (pipe2(ends, O_CLOEXEC) != 0) {
    throw std::runtime_error("no pipe");
  }
  reading = tool::Fd(ends[0]);
  writing = tool::Fd(ends[1]);
}

void LogPipe::fill() const {
  const std::string filler(static_cast<std::size_t>(fcntl(writing.get(), F_GETPIPE_SZ)), kFiller);
  if (write(writing.get(), filler.data(), filler.size()) != std::ssize(filler)) {
    throw std::runtime_error("the pipe is not full");
  }
}

const std::string& LogPipe::readUntil(const std::string& words) {
  while (text.find(words) == std::string::npos) {
    if (read(kTimeoutMilliseconds) != Read::some) {
      throw std::runtime_error("the log does not say \"" + words + "\": " + text);
    }
  }
  return text;
}

const std::string& LogPipe::readToTheEnd() {
  for (Read last = Read::some; last != Read::end;) {
    last = read(kTimeoutMilliseconds);
    if (last == Read::nothing) {
      throw std::runtime_error("the log does not end: " + text);
    }
  }
  return text;
}

const std::string& LogPipe::readAll() {
  while (read(0) == Read::some) {
  }
  return text;
}

LogPipe::Read LogPipe::read(int milliseconds) {
  pollfd readable = {reading.get(), POLLIN, 0};
  if (poll(&readable, 1, milliseconds) != 1) {
    return Read::nothing;
  }
  char bytes[4096];
  const ssize_t size = ::read(reading.get(), bytes, sizeof(bytes));
  if (size <= 0) {
    return Read::end;
  }
  std::copy_if(bytes, bytes + size, std::back_inserter(text), [](char c) { return c != kFiller; });
  return Read::some;
}

StandardError::StandardError(int descriptor) : before(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3)) {
  dup2(descriptor, STDERR_FILENO);
}

StandardError::~StandardError() {
  dup2(before, STDERR_FILENO);
  close(before);
}

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) {
    lines.push_back(line);
  }
  return lines;
}

unsigned long long sumBefore(const std::string& text, const std::string& words) {
  const std::regex number("\\b([0-9]+)" + words);
  unsigned long long sum = 0;
  for (std::sregex_iterator at(text.begin(), text.end(), number), end; at != end; ++at) {
    sum += std::stoull((*at)[1]);
  }
  return sum;
}

}  // namespace orvane::test
