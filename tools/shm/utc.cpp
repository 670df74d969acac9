#include "shm/utc.hpp"

#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <system_error>

namespace tool {
namespace {

// "2026-11-21T02:32:24"
std::string secondsText(std::time_t time) {
  std::tm utc = {};
  gmtime_r(&time, &utc);
  char text[64] = {};  // more than the largest year needs
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &utc);
  return text;
}

std::string withoutPunctuation(std::string text) {
  std::erase_if(text, [](char c) { return c == '-' || c == ':'; });
  return text;
}

// Appends a number with at least `width` digits, and the character after it. A list of streams has
// very many times, and printf is slow.
template <typename Number>
void append(std::string& text, Number number, std::size_t width, char after) {
  const std::string digits = std::to_string(number);
  text.append(width - std::min(width, digits.size()), '0').append(digits).push_back(after);
}

// Removes a number of `width` digits, and the character after it, from the begin of `text`. Returns
// false if they are not there.
template <typename Number>
bool take(std::string_view& text, Number& number, std::size_t width, char after) {
  if (text.size() <= width || text[width] != after || text.front() == '-') {
    return false;
  }
  const char* const end = text.data() + width;
  const auto [rest, error] = std::from_chars(text.data(), end, number);
  text.remove_prefix(width + 1);
  return error == std::errc() && rest == end;
}

}  // namespace

std::string utcText(std::time_t time) {
  return secondsText(time) + "Z";
}

std::string utcText(const std::timespec& time) {
  char milliseconds[sizeof(".123Z")] = {};
  std::snprintf(milliseconds, sizeof milliseconds, ".%03uZ",
                static_cast<unsigned>(time.tv_nsec / 1000000) % 1000);
  return secondsText(time.tv_sec) + milliseconds;
}

std::string utcTextForNames(std::time_t time) {
  return withoutPunctuation(secondsText(time));
}

UtcTime utcNow() {
  return std::chrono::floor<std::chrono::milliseconds>(std::chrono::system_clock::now());
}

std::string utcText(UtcTime time) {
  const auto day = std::chrono::floor<std::chrono::days>(time);
  const std::chrono::year_month_day date(day);
  const std::chrono::hh_mm_ss clock(time - day);
  std::string text;
  append(text, static_cast<int>(date.year()), 4, '-');
  append(text, static_cast<unsigned>(date.month()), 2, '-');
  append(text, static_cast<unsigned>(date.day()), 2, 'T');
  append(text, clock.hours().count(), 2, ':');
  append(text, clock.minutes().count(), 2, ':');
  append(text, clock.seconds().count(), 2, '.');
  append(text, clock.subseconds().count(), 3, 'Z');
  return text;
}

std::string utcTextForNames(UtcTime time) {
  const std::string text = utcText(time);
  return withoutPunctuation(text.substr(0, text.find('.')));
}

std::optional<UtcTime> parseUtc(std::string_view text) {
  int year = 0;
  unsigned month = 0;
  unsigned day = 0;
  unsigned hour = 0;
  unsigned minute = 0;
  unsigned second = 0;
  unsigned millisecond = 0;
  const bool isTime = take(text, year, 4, '-') && take(text, month, 2, '-') &&
                      take(text, day, 2, 'T') && take(text, hour, 2, ':') &&
                      take(text, minute, 2, ':') && take(text, second, 2, '.') &&
                      take(text, millisecond, 3, 'Z') && text.empty();
  const std::chrono::year_month_day date{std::chrono::year(year), std::chrono::month(month),
                                         std::chrono::day(day)};
  if (!isTime || !date.ok() || hour >= 24 || minute >= 60 || second >= 60) {
    return std::nullopt;
  }
  return std::chrono::sys_days(date) + std::chrono::hours(hour) + std::chrono::minutes(minute) +
         std::chrono::seconds(second) + std::chrono::milliseconds(millisecond);
}

std::string timeAndProcess() {
  return utcTextForNames(std::time(nullptr)) + "-" + std::to_string(getpid());
}

}  // namespace tool
