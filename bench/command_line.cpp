#include "command_line.hpp"

#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>

namespace bench {

CommandLine::CommandLine(const std::string& name, const std::string& description)
    : app(std::make_unique<CLI::App>(description, name)) {}
CommandLine::~CommandLine() = default;

template <typename T>
void CommandLine::add(const std::string& option, T& value, const std::string& help) {
  app->add_option(option, value, help)->capture_default_str();
}
template void CommandLine::add(const std::string&, int&, const std::string&);
template void CommandLine::add(const std::string&, double&, const std::string&);
template void CommandLine::add(const std::string&, std::string&, const std::string&);
template void CommandLine::add(const std::string&, std::vector<std::string>&, const std::string&);
template void CommandLine::add(const std::string&, std::vector<std::size_t>&, const std::string&);
template void CommandLine::add(const std::string&, std::vector<unsigned>&, const std::string&);

void CommandLine::addRequired(const std::string& option, std::string& value,
                              const std::string& help) {
  app->add_option(option, value, help)->required();
}

void CommandLine::addBytes(const std::string& option, std::size_t& value, const std::string& help) {
  app->add_option(option, value, help)->transform(CLI::AsSizeValue(false).description(""));
}

void CommandLine::addChoices(const std::string& option, std::vector<std::string>& values,
                             const std::vector<std::string>& choices, const std::string& help) {
  app->add_option(option, values, help)->check(CLI::IsMember(choices))->capture_default_str();
}

int CommandLine::run(int argc, char** argv, const std::function<void()>& measure) try {
  CLI11_PARSE(*app, argc, argv);
  measure();
  return 0;
} catch (const std::exception& e) {
  std::fprintf(stderr, "%s: %s\n", app->get_name().c_str(), e.what());
  return 1;
}

}  // namespace bench
