// What the server learns at start about the confinement of its workers.

#include <gtest/gtest.h>
#include <pwd.h>
#include <seccomp.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <stdexcept>
#include <utility>

#include "support/confined_child.hpp"
#include "worker/allowed_calls.hpp"
#include "worker/landlock.hpp"
#include "worker/try_confinement.hpp"

namespace orvane::test {
namespace {

// A filter as an older kernel's or a container's: these calls fail, or end the process.
struct System {
  std::vector<int> calls;
  std::uint32_t action = SCMP_ACT_ALLOW;
};

System whereFail(std::vector<int> calls, int error) {
  return {std::move(calls), SCMP_ACT_ERRNO(static_cast<std::uint32_t>(error))};
}

void enter(const System& system) {
  scmp_filter_ctx filter = seccomp_init(SCMP_ACT_ALLOW);
  for (const int call : system.calls) {
    if (seccomp_rule_add(filter, system.action, call, 0) != 0) {
      throw std::runtime_error("seccomp_rule_add");
    }
  }
  if (!system.calls.empty() && seccomp_load(filter) != 0) {
    throw std::runtime_error("seccomp_load");
  }
  seccomp_release(filter);
}

std::string textOf(const Confinement& confinement) {
  std::string text;
  try {
    for (const auto& line : tryConfinement(confinement)) {
      text += (line.isWarning ? "warning: " : "info: ") + line.text + "\n";
    }
  } catch (const std::runtime_error& e) {
    text += std::string("error: ") + e.what() + "\n";
  }
  return text;
}

// What the trial says to a server with these rights.
std::string trial(Rights rights, const Confinement& confinement, const System& system = {}) {
  int ends[2] = {};
  EXPECT_EQ(pipe(ends), 0);
  const std::string how = runInChild([&] {
    takeOn(rights);
    enter(system);
    const std::string text = textOf(confinement);
    return write(ends[1], text.data(), text.size()) < 0 ? 1 : 0;
  });
  close(ends[1]);
  std::array<char, 4096> text = {};
  const ssize_t length = read(ends[0], text.data(), text.size());
  close(ends[0]);
  EXPECT_EQ(how, "exit 0");
  return {text.data(), static_cast<std::size_t>(length)};
}

std::string userLine(uid_t user) {
  return "info: workers run as user " + std::to_string(user) + ", group " + std::to_string(user) +
         "\n";
}

const std::string kCapabilities = "info: workers have no capabilities\n";

std::string landlockLine() {
  return "info: workers are confined by Landlock, version " +
         std::to_string(orvaned::landlockVersion()) + ": they can open no path\n";
}

std::string seccompLine() {
  return "info: workers may make " +
         std::to_string(orvaned::workerCalls().size() + orvaned::instrumentationCalls().size()) +
         " system calls only, by seccomp\n";
}

class Trial : public testing::TestWithParam<Rights> {
 protected:
  std::string run(const System& system = {}) const {
    return trial(GetParam(), confinement, system);
  }

  Confinement confinement = confinementOf(GetParam());
  const std::string user = userLine(GetParam() == Rights::root ? kWorkerUser
                                    : geteuid() == 0           ? kServerUser
                                                               : geteuid());
};

TEST_P(Trial, SaysHowWorkersAreConfined) {
  EXPECT_EQ(run(), user + kCapabilities + landlockLine() + seccompLine());
}

TEST_P(Trial, WarnsOfWhatIsSwitchedOff) {
  confinement.landlock = false;
  EXPECT_EQ(run(), user + kCapabilities +
                       "warning: workers are not confined by Landlock: --without landlock\n" +
                       seccompLine());
  confinement.seccomp = false;
  EXPECT_EQ(run(), user + kCapabilities +
                       "warning: workers are not confined by Landlock: --without landlock\n"
                       "warning: workers may make all system calls: --without seccomp\n");
  confinement.capabilities = false;
  EXPECT_EQ(run(), user +
                       "warning: workers keep the server's capabilities: --without capset\n"
                       "warning: workers are not confined by Landlock: --without landlock\n"
                       "warning: workers may make all system calls: --without seccomp\n");
}

TEST_P(Trial, RefusedCapsetNamesItsOption) {
  EXPECT_EQ(run(whereFail({SCMP_SYS(capset)}, EPERM)),
            "error: workers cannot be confined: the system refuses capset (--without capset goes "
            "on without it): Operation not permitted\n");
  confinement.capabilities = false;
  EXPECT_EQ(run(whereFail({SCMP_SYS(capset)}, EPERM)),
            user + "warning: workers keep the server's capabilities: --without capset\n" +
                landlockLine() + seccompLine());
}

TEST_P(Trial, RefusedLandlockNamesItsOption) {
  for (const auto& [call, name] :
       {std::pair(SCMP_SYS(landlock_create_ruleset), "landlock_create_ruleset"),
        std::pair(SCMP_SYS(landlock_restrict_self), "landlock_restrict_self")}) {
    EXPECT_EQ(run(whereFail({call}, EPERM)),
              "error: workers cannot be confined: the system refuses " + std::string(name) +
                  " (--without landlock goes on without it): Operation not "
                  "permitted\n");
  }
  confinement.landlock = false;
  EXPECT_EQ(
      run(whereFail({SCMP_SYS(landlock_create_ruleset), SCMP_SYS(landlock_restrict_self)}, EPERM)),
      user + kCapabilities + "warning: workers are not confined by Landlock: --without landlock\n" +
          seccompLine());
}

TEST_P(Trial, RefusedSeccompNamesItsOption) {
  EXPECT_EQ(run(whereFail({SCMP_SYS(seccomp)}, EPERM)),
            "error: workers cannot be confined: the system refuses seccomp (--without seccomp goes "
            "on without it): Operation not permitted\n");
  confinement.seccomp = false;
  EXPECT_EQ(run(whereFail({SCMP_SYS(seccomp)}, EPERM)),
            user + kCapabilities + landlockLine() +
                "warning: workers may make all system calls: --without seccomp\n");
}

TEST_P(Trial, KernelWithoutLandlockIsAWarning) {
  for (const int error : {ENOSYS, EOPNOTSUPP}) {
    EXPECT_EQ(run(whereFail({SCMP_SYS(landlock_create_ruleset)}, error)),
              user + kCapabilities +
                  "warning: workers are not confined by Landlock: this kernel does not have it, or "
                  "has it switched off\n" +
                  seccompLine());
  }
}

TEST_P(Trial, KernelWithoutSeccompIsAWarning) {
  EXPECT_EQ(run(whereFail({SCMP_SYS(seccomp)}, ENOSYS)),
            user + kCapabilities + landlockLine() +
                "warning: workers may make all system calls: this kernel does not have seccomp\n");
}

TEST_P(Trial, KernelWithoutCapsetIsAWarningWhereThereAreCapabilities) {
  // A root server's workers lose theirs with the change of user, an ordinary user has none.
  const bool keeps = GetParam() == Rights::service;
  EXPECT_EQ(run(whereFail({SCMP_SYS(capset)}, ENOSYS)),
            user +
                (keeps ? "warning: workers keep the server's capabilities: this kernel has no "
                         "capset()\n"
                       : kCapabilities) +
                landlockLine() + seccompLine());
}

INSTANTIATE_TEST_SUITE_P(Each, Trial, testing::ValuesIn(rightsHere()),
                         [](const auto& rights) { return nameOf(rights.param); });

TEST(TrialOfUser, RefusedChangeNamesItsOption) {
  Confinement confinement;
  confinement.user = orvaned::WorkerUser{kWorkerUser, kWorkerUser};
  const std::string text = trial(Rights::user, confinement);
  EXPECT_EQ(text,
            "error: workers cannot be confined: cannot become user 65533 (--worker-user root goes "
            "on as root): Operation not permitted\n");
}

TEST(TrialThatFails, SaysWhy) {
  EXPECT_EQ(trial(Rights::user, Confinement(), whereFail({SCMP_SYS(prctl)}, EINVAL)),
            "error: workers cannot be confined: prctl: Invalid argument\n");
  EXPECT_EQ(trial(Rights::user, Confinement(), {{SCMP_SYS(capset)}, SCMP_ACT_KILL_PROCESS}),
            "error: workers cannot be confined: the trial ended with signal 31\n");
}

}  // namespace
}  // namespace orvane::test
