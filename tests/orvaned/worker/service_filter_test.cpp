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

#include "support/child.hpp"
#include "support/confined_child.hpp"
#include "support/queue_pair.hpp"
#include "support/reachable.hpp"
#include "support/temp_folder.hpp"
#include "unit_filter.hpp"

namespace orvane::test {
namespace {

// The real server, as an ordinary user with the service's capabilities, under a filter.
class FilteredServer {
 public:
  FilteredServer(const std::set<std::string>& calls, const std::vector<std::string>& arguments) {
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
      throw std::runtime_error("no pipe");
    }
    child = std::make_unique<Child>([&] { become(calls, arguments); });
    close(ends[1]);
  }
  ~FilteredServer() { close(ends[0]); }
  FilteredServer(const FilteredServer&) = delete;
  FilteredServer& operator=(const FilteredServer&) = delete;

  // Reads its log until that is said, or to its end.
  bool says(const std::string& words) {
    std::array<char, 4096> part = {};
    while (log.find(words) == std::string::npos) {
      const ssize_t length = read(ends[0], part.data(), part.size());
      if (length <= 0) {
        return false;
      }
      log.append(part.data(), static_cast<std::size_t>(length));
    }
    return true;
  }

  std::string end() {
    child->signal(SIGTERM);
    return child->nextChange();
  }

  std::string ended() { return child->nextChange(); }
  const std::string& said() const { return log; }

 private:
  void become(const std::set<std::string>& calls, const std::vector<std::string>& arguments) {
    dup2(ends[1], STDERR_FILENO);
    std::vector<char*> argv = {const_cast<char*>("orvaned")};
    for (const std::string& argument : arguments) {
      argv.push_back(const_cast<char*>(argument.c_str()));
    }
    argv.push_back(nullptr);
    // The leak check at a process's end traces it, which the unit does not allow.
    const char* options = getenv("ASAN_OPTIONS");
    setenv("ASAN_OPTIONS", ((options ? options : "") + std::string(":detect_leaks=0")).c_str(), 1);
    const std::string program = reachable(ORVANED_PATH);
    takeOn(geteuid() == 0 ? Rights::service : Rights::user);
    allowOnly(calls);
    execv(program.c_str(), argv.data());
    _exit(127);
  }

  std::array<int, 2> ends = {};
  std::string log;
  std::unique_ptr<Child> child;
};

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
  FilteredServer server(callsAllowedBy(unit), arguments);
  ASSERT_TRUE(server.says("serving queue ")) << server.said();
  ShmWriter writer("filtered", send.text(), 30, 30, false);
  writer.open();
  writer.writeSegment(reinterpret_cast<const unsigned char*>("data"), 4);
  writer.endSegment();
  writer.close();

  EXPECT_TRUE(server.says("end=closed"));
  EXPECT_EQ(server.end(), "exit 0");
  EXPECT_EQ(server.said().find(" warning "), std::string::npos) << server.said();
  EXPECT_EQ(server.said().find(" error "), std::string::npos) << server.said();
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
    FilteredServer server(calls, arguments);
    const bool serves = server.says("serving queue ");
    EXPECT_FALSE(serves);
    EXPECT_EQ(serves ? server.end() : server.ended(), "exit 1");
    EXPECT_NE(server.said().find("the system refuses " + std::string(call) + " (--without " + part +
                                 " goes on without it): Operation not permitted\n"),
              std::string::npos)
        << server.said();
  }
}

TEST_F(ServiceFilter, AllowsLandlocksThirdCall) {
  EXPECT_TRUE(callsAllowedBy(unit).contains("landlock_add_rule"));
}

}  // namespace
}  // namespace orvane::test
