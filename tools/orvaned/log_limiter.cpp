#include "log_limiter.hpp"

#include <utility>

namespace orvaned {
namespace {

constexpr std::size_t kLongestFunction = 64;
constexpr std::size_t kLongestExample = 256;
constexpr std::string_view kColon = ": ";

// The length of "COMPONENT::FUNCTION: " at the beginning of a text; 0 if there is none.
std::size_t prefixOf(std::string_view text) {
  const std::size_t colon = text.substr(0, kLongestFunction).find(kColon);
  return colon == std::string_view::npos ? 0 : colon + kColon.size();
}

std::string countOf(std::uint64_t lines, const char* ofWhat) {
  return std::to_string(lines) + (lines == 1 ? " more line " : " more lines ") + ofWhat +
         " within a second; the first of them: ";
}

}  // namespace

LogLimiter::Subject& LogLimiter::subjectNamed(const std::string& name) {
  if (const auto found = subjects.find(name); found != subjects.end()) {
    return found->second;
  }
  return subjects.size() < kSubjects ? subjects[name] : otherSubjects;
}

bool LogLimiter::admit(const LogLine& line, Clock::time_point now) {
  if (line.subject.empty() || line.kind > ox::Kind::error) {
    return true;
  }
  if (!end) {
    end = now + kWindow;
  }
  Subject& subject = subjectNamed(line.subject);
  const CauseKey key(line.kind, line.code, line.text.substr(0, prefixOf(line.text)));
  const bool known = subject.causes.contains(key) || subject.causes.size() < kCauses;
  Cause& cause = known ? subject.causes[key] : subject.otherCauses;
  if (cause.passed < kLinesOfCause && subject.lines < kLinesOfSubject &&
      subject.bytes + line.text.size() <= kBytesOfSubject) {
    ++cause.passed;
    ++subject.lines;
    subject.bytes += line.text.size();
    return true;
  }
  if (cause.counted++ == 0) {
    cause.first = line.text.substr(0, kLongestExample);
  }
  return false;
}

std::vector<LogLine> LogLimiter::due(Clock::time_point now) {
  return end && now >= *end ? finish() : std::vector<LogLine>();
}

std::vector<LogLine> LogLimiter::finish() {
  std::vector<LogLine> lines;
  const auto add = [&lines](const std::string& name, Subject& subject) {
    for (const auto& [key, cause] : subject.causes) {
      if (cause.counted > 0) {
        const auto& [kind, code, prefix] = key;
        lines.push_back({kind, code, name,
                         (prefix.empty() ? "log::limit: " : prefix) + name + ": " +
                             countOf(cause.counted, "like this") +
                             cause.first.substr(prefix.size())});
      }
    }
    if (const Cause& others = subject.otherCauses; others.counted > 0) {
      lines.push_back({ox::Kind::warning, 0, name,
                       "log::limit: " + name + ": " + countOf(others.counted, "of other kinds") +
                           others.first});
    }
  };
  for (auto& [name, subject] : subjects) {
    add(name, subject);
  }
  add("other users", otherSubjects);
  subjects.clear();
  otherSubjects = Subject();
  end.reset();
  return lines;
}

}  // namespace orvaned
