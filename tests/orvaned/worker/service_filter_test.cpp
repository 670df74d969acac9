// The packaged service's system call filter lets the server confine its workers.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <memory>
#include <orvane/orvane.hpp>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "support/confined_child.hpp"
#include "support/queue_pair.hpp"
#include "support/server_process.hpp"
#include "support/temp_folder.hpp"
#include "unit_filter.hpp"

namespace orvane::test {
namespace {

// As an ordinary user with the service's capabilities, under a filter that allows these calls.
ServerProcess::Setup filteredBy(const std::set<std::string>& calls) {
  const auto prepare = [calls] {
    // The leak check at a process's end traces it, which the unit does not allow.
    const char* options = getenv("ASAN_OPTIONS");
    setenv("ASAN_OPTIONS", ((options ? options : "") + std::string(":detect_leaks=0")).c_str(), 1);
    takeOn(geteuid() == 0 ? Rights::service : Rights::user);
    allowOnly(calls);
  };
  return {.prepare = prepare};
}

class ServiceFilter : public testing::Test {
 protected:
  ServiceFilter() {
    if (geteuid() == 0 && chown(folder.path().c_str(), kServerUser, kServerUser) != 0) {
      throw std::runtime_error("chown");
    }
  }

  const std::string unit = readFile(UNIT_PATH);
  const TempFolder folder;
  const QueueName send{uniqueQueueName()};
  const QueueName response{send.text() + "Response"};
  const std::vector<std::string> arguments = {"--queue", send.text(), "--store", folder.path()};
};

TEST_F(ServiceFilter, LetsTheServerConfineItsWorkersAndStore) {
  ServerProcess server(arguments, filteredBy(callsAllowedBy(unit)));
  ASSERT_TRUE(server.says("serving queue ")) << server.rawOutput();
  ShmWriter writer("filtered", send.text(), 30, 30, false);
  writer.open();
  writer.writeSegment(reinterpret_cast<const unsigned char*>("data"), 4);
  writer.endSegment();
  writer.close();

  EXPECT_TRUE(server.says("end=closed"));
  server.signal(SIGTERM);
  EXPECT_EQ(server.wait(), 0);
  EXPECT_EQ(server.rawOutput().find(" warning "), std::string::npos) << server.rawOutput();
  EXPECT_EQ(server.rawOutput().find(" error "), std::string::npos) << server.rawOutput();
  EXPECT_EQ(namesIn(folder.path()).size(), 1U);
}

TEST_F(ServiceFilter, NeedsEachCallThatConfines) {
  const std::pair<const char*, const char*> needed[] = {{"capset", "capset"},
                                                        {"seccomp", "seccomp"},
                                                        {"landlock_create_ruleset", "landlock"},
                                                        {"landlock_restrict_self", "landlock"}};
  for (const auto& [call, part] : needed) {
    std::set<std::string> calls = callsAllowedBy(unit);
    ASSERT_EQ(calls.erase(call), 1U) << call;
    ServerProcess server(arguments, filteredBy(calls));
    ASSERT_FALSE(server.says("serving queue "));
    EXPECT_EQ(server.wait(), 1);
    EXPECT_NE(server.rawOutput().find("the system refuses " + std::string(call) + " (--without " +
                                      part + " goes on without it): Operation not permitted\n"),
              std::string::npos)
        << server.rawOutput();
  }
}

TEST_F(ServiceFilter, AllowsLandlocksThirdCall) {
  EXPECT_TRUE(callsAllowedBy(unit).contains("landlock_add_rule"));
}

}  // namespace
}  // namespace orvane::test
