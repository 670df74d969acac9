#include "worker/landlock.hpp"

#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "shm/fd.hpp"

namespace orvaned {
namespace {

// The kernel's own definitions, as in Linux 6.12: the headers of Debian 12 end with version 2. A
// kernel accepts a structure that is longer than its own if the rest is zero.
struct RulesetAttributes {
  std::uint64_t files;
  std::uint64_t network;
  std::uint64_t scopes;
};

struct __attribute__((packed)) PathBeneath {
  std::uint64_t allowed;
  std::int32_t parent;
};

constexpr std::uint32_t kCreateRulesetVersion = 1;
constexpr int kRulePathBeneath = 1;

constexpr std::uint64_t kWriteFile = 1U << 1;
constexpr std::uint64_t kReadFile = 1U << 2;
constexpr std::uint64_t kFirstFileRights = (1U << 13) - 1;  // execute ... make a symbolic link
constexpr std::uint64_t kRefer = 1U << 13;
constexpr std::uint64_t kTruncate = 1U << 14;
constexpr std::uint64_t kIoctlDevice = 1U << 15;
constexpr std::uint64_t kNetwork = 0b11;  // TCP: bind, connect
constexpr std::uint64_t kScopes = 0b11;   // abstract Unix sockets, signals

constexpr int kVersionOfRefer = 2;
constexpr int kVersionOfTruncate = 3;
constexpr int kVersionOfNetwork = 4;
constexpr int kVersionOfIoctl = 5;
constexpr int kVersionOfScopes = 6;

[[noreturn]] void fail(const char* call) {
  throw std::system_error(
      errno, std::generic_category(),
      "the system refuses " + std::string(call) + " (--without landlock goes on without it)");
}

}  // namespace

LandlockRights landlockRights(int version) {
  LandlockRights rights = {version >= 1 ? kFirstFileRights : 0, 0, 0};
  rights.files |= version >= kVersionOfRefer ? kRefer : 0;
  rights.files |= version >= kVersionOfTruncate ? kTruncate : 0;
  rights.files |= version >= kVersionOfIoctl ? kIoctlDevice : 0;
  rights.network = version >= kVersionOfNetwork ? kNetwork : 0;
  rights.scopes = version >= kVersionOfScopes ? kScopes : 0;
  return rights;
}

int landlockVersion() {
  const long version = syscall(SYS_landlock_create_ruleset, nullptr, 0, kCreateRulesetVersion);
  if (version >= 0) {
    return static_cast<int>(version);
  }
  if (errno == ENOSYS || errno == EOPNOTSUPP) {
    return 0;
  }
  fail("landlock_create_ruleset");
}

void forbidPaths(int version, int allowedFile) {
  if (version == 0) {
    return;
  }
  const LandlockRights rights = landlockRights(version);
  const RulesetAttributes attributes = {rights.files, rights.network, rights.scopes};
  const tool::Fd ruleset(
      static_cast<int>(syscall(SYS_landlock_create_ruleset, &attributes, sizeof(attributes), 0)));
  if (ruleset.get() < 0) {
    fail("landlock_create_ruleset");
  }
  if (allowedFile >= 0) {
    const PathBeneath rule = {kReadFile | kWriteFile, allowedFile};
    if (syscall(SYS_landlock_add_rule, ruleset.get(), kRulePathBeneath, &rule, 0) != 0) {
      fail("landlock_add_rule");
    }
  }
  if (syscall(SYS_landlock_restrict_self, ruleset.get(), 0) != 0) {
    fail("landlock_restrict_self");
  }
}

}  // namespace orvaned
