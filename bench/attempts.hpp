#pragma once

#include <functional>
#include <set>
#include <string>

namespace bench {

// Runs measurements that may fail. One that fails is tried again. If it fails again, it is
// reported, as a line of JSON and on standard error, and left out of all later rounds; so that a
// mechanism that hangs does not take the time of the others. What was measured before is kept.
class Attempts {
 public:
  explicit Attempts(std::string question);

  // `fields` names what is measured, as members of a JSON object: "form":"pipe","size":64
  void measure(const std::string& fields, int round, const std::function<void()>& work);

 private:
  const std::string question;
  std::set<std::string> leftOut;
};

// "name":"value" and "name":value, as parts of `fields`.
std::string field(const std::string& name, const std::string& value);
std::string field(const std::string& name, std::size_t value);

}  // namespace bench
