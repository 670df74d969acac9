#pragma once

#include <locale>
#include <string>

namespace orvane::test {

// A locale that writes 1234567 as 1'234'567.
inline std::locale groupingLocale() {
  struct Grouping : std::numpunct<char> {
    char do_thousands_sep() const override { return '\''; }
    std::string do_grouping() const override { return "\3"; }
  };
  return {std::locale::classic(), new Grouping};
}

// Makes it the global locale, as an application may, while it lives.
class GlobalGroupingLocale {
 public:
  GlobalGroupingLocale() : before(std::locale::global(groupingLocale())) {}
  ~GlobalGroupingLocale() { std::locale::global(before); }
  GlobalGroupingLocale(const GlobalGroupingLocale&) = delete;
  GlobalGroupingLocale& operator=(const GlobalGroupingLocale&) = delete;

 private:
  std::locale before;
};

}  // namespace orvane::test
