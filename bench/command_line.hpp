#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace bench {

// The options of one program. CLI11 takes a quarter of a minute to compile, so only the source of
// this class includes it.
class CommandLine {
 public:
  CommandLine(const std::string& name, const std::string& description);
  ~CommandLine();

  // `value` has the default. T is int, double, std::string, or a vector of std::string,
  // std::size_t or unsigned.
  template <typename T>
  void add(const std::string& option, T& value, const std::string& help);
  void addRequired(const std::string& option, std::string& value, const std::string& help);
  void addBytes(const std::string& option, std::size_t& value, const std::string& help);
  void addChoices(const std::string& option, std::vector<std::string>& values,
                  const std::vector<std::string>& choices, const std::string& help);

  // Sets the values, calls `measure` and returns the program's exit status. Prints the text of an
  // exception that `measure` throws.
  int run(int argc, char** argv, const std::function<void()>& measure);

 private:
  std::unique_ptr<CLI::App> app;
};

}  // namespace bench
