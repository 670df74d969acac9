#pragma once

#include <string>
#include <vector>

#include "shm/fd.hpp"

namespace orvane::test {

// A pipe for the standard error of a server, or of this process.
class LogPipe {
 public:
  LogPipe();

  int writingEnd() const { return writing.get(); }
  void closeWritingEnd() { writing.reset(); }

  // Nothing more can be written until it is read.
  void fill() const;

  // All that was read, until it holds these words; throws when they do not come in 30 seconds. What
  // fill() wrote is left out.
  const std::string& readUntil(const std::string& words);

  // The same, until nobody can write any more. closeWritingEnd() comes before.
  const std::string& readToTheEnd();

  // What is there to be read now.
  const std::string& readAll();

 private:
  enum class Read { some, nothing, end };
  Read read(int milliseconds);

  tool::Fd reading;
  tool::Fd writing;
  std::string text;
};

// While it lives, this is the standard error of this process.
class StandardError {
 public:
  explicit StandardError(int descriptor);
  ~StandardError();
  StandardError(const StandardError&) = delete;
  StandardError& operator=(const StandardError&) = delete;

 private:
  const int before;
};

std::vector<std::string> linesOf(const std::string& text);

// The sum of the numbers before these words: " more lines".
unsigned long long sumBefore(const std::string& text, const std::string& words);

}  // namespace orvane::test
