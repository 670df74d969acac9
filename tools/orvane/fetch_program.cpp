#include "fetch_program.hpp"

#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

#include "exit.hpp"

namespace tool {

void becomeFetchProgram(const std::string& command, std::vector<std::string> arguments) {
  std::error_code error;
  const auto self = std::filesystem::read_symlink("/proc/self/exe", error);
  std::string program = self.parent_path() / kFetchProgram;
  arguments.insert(arguments.begin(), {kFetchProgram, command});
  std::vector<char*> pointers;
  for (std::string& argument : arguments) {
    pointers.push_back(argument.data());
  }
  pointers.push_back(nullptr);
  execv(program.c_str(), pointers.data());
  if (errno == ENOENT) {
    throw Failure(kFailed, program + " is missing: install the package orvane-forward");
  }
  throw Failure(kFailed, std::generic_category().message(errno) + ": cannot start " + program);
}

}  // namespace tool
