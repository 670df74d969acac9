// What the documents show of the programs is what the programs do.

#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <orvane/orvane.hpp>
#include <queue/message_queue.hpp>
#include <sstream>

#include "support/eventually.hpp"
#include "support/queue_pair.hpp"
#include "support/server.hpp"
#include "support/text.hpp"

namespace orvane::test {
namespace {

struct Step {
  std::string command;
  std::string shown;  // the lines below it
};

// The commands of all blocks that begin with one.
std::vector<Step> stepsIn(const std::string& markdown) {
  std::vector<Step> steps;
  bool inBlock = false;
  std::istringstream lines(markdown);
  for (std::string line, before; std::getline(lines, line); before = line) {
    if (line.starts_with("$ ") && (inBlock || before == "```")) {
      inBlock = true;
      steps.push_back({line.substr(2), ""});
    } else if (line == "```") {
      inBlock = false;
    } else if (inBlock) {
      steps.back().shown += line + "\n";
    }
  }
  return steps;
}

std::string replaced(const std::string& text, const char* pattern, const std::string& by) {
  return std::regex_replace(text, std::regex(pattern), by);
}

// Without what is another one each time: when, how fast, which process, how wide a column.
std::string comparable(std::string text) {
  text = replaced(text, "[0-9]{8}T[0-9]{6}-[0-9]+_[0-9]+", "ID");
  text = replaced(text, "[0-9-]{10}T[0-9:.]+Z", "TIME");
  text = replaced(text, "\ncrc32=[0-9a-f]{8}\n", "\ncrc32=OF THE LINES\n");
  text = replaced(text, "[0-9.]+ [kMG]?B/s", "RATE");
  text = replaced(text, "[0-9]+\\.[0-9]+ s", "SECONDS");
  text = replaced(text, "process [0-9]+, worker [0-9]+", "process P, worker W");
  text = replaced(text, "0600 +[^ ]+ +[0-9]+\n", "0600 OWNER SERVER\n");
  text = replaced(text, "closed +[^ \n]+ ", "closed USER ");
  text = replaced(text, "batches +[0-9]+\n", "batches N\n");  // more where the receipt is late
  // The same: the command asks again, with an empty batch.
  text = replaced(text, "message [0-9]+, queue orders, 8 bytes\n[^\n]*\n", "");
  return replaced(text, " +", " ");
}

// Types a document's commands, in its own folder and with its own queue.
class Session {
 public:
  Session() { writeFile(path("app.log"), std::string(588895, 'x')); }
  ~Session() {
    end();
    for (const std::string& name : sharedMemoryNamed(queue)) {
      std::filesystem::remove("/dev/shm/" + name);
    }
  }
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  std::string path(const std::string& name) const { return folder.path() + "/" + name; }

  // What the command prints. In what it is told and in what it says, the queue is called orders.
  std::string type(std::string command) {
    command = replaced(command, "^\\./dev demo", "orvane demo");
    command = replaced(command, "\\borders\\b", queue);
    if (command == "kill %1") {
      end();
      return "";
    }
    if (command.starts_with("export ")) {
      exported += command + " && ";
      return "";
    }
    if (command.ends_with(" &")) {
      begin(command.substr(0, command.size() - 2));
      return "";
    }
    const std::string filter = command == "orvane ls" ? " | grep -e NAME -e " + queue : "";
    const Ended ended = run(shell("{ " + command + "; } 2>&1" + filter));
    return replaced(ended.out, queue.c_str(), "orders");
  }

 private:
  std::vector<std::string> shell(const std::string& command) const {
    const std::string programs = std::filesystem::path(ORVANE_PATH).parent_path();
    return {BASH_PATH, "-c",
            "cd " + folder.path() + " && PATH=" + programs + ":$PATH && " + exported + command};
  }

  void begin(const std::string& command) {
    std::filesystem::remove(path("orvaned.log"));
    server = std::make_unique<Process>(shell("exec " + command));
    EXPECT_TRUE(eventually([this] {
      return std::filesystem::exists(path("orvaned.log")) &&
             contains(readFile(path("orvaned.log")), "serving");
    })) << command;
  }

  void end() {
    if (server) {
      server->signal(SIGTERM);
      EXPECT_EQ(server->wait().how, "exit 0");
      server.reset();
    }
  }

  const TempFolder folder;
  const std::string queue = uniqueQueueName();
  std::string exported;  // commands that set the environment of later ones
  std::unique_ptr<Process> server;
};

void expectTrue(Session& session, const std::string& document) {
  const std::vector<Step> steps = stepsIn(readFile(document));
  ASSERT_FALSE(steps.empty());
  for (const Step& step : steps) {
    EXPECT_EQ(comparable(session.type(step.command)), comparable(step.shown)) << step.command;
  }
}

TEST(Documents, ReadmeShowsWhatItsCommandsPrint) {
  Session session;
  expectTrue(session, README_PATH);
}

TEST(Documents, OperationsGuideShowsWhatItsCommandsPrint) {
  Session session;
  std::filesystem::create_directory(session.path("store"));
  expectTrue(session, OPERATIONS_PATH);
}

TEST(Documents, RetentionCommandTakesFinishedStreamsOnly) {
  Server server;
  ASSERT_EQ(run(server.sendCommand({"-"}), "finished").how, "exit 0");
  Process open(server.sendCommand({"-"}));
  open.write(std::string(2000000, 'x'));
  ASSERT_TRUE(eventually([&] {
    return server.streams().size() == 2 &&
           std::filesystem::exists(server.streams().at(1) + "/segment-000000.part");
  }));
  const std::string unfinished = server.streams().at(1);

  const std::vector<Step> steps = stepsIn(readFile(OPERATIONS_PATH));
  const auto step = std::find_if(steps.begin(), steps.end(), [](const Step& one) {
    return one.command.starts_with("orvane prune ");
  });
  ASSERT_NE(step, steps.end());
  const std::string now = replaced(step->command, " 30d store$", " 0s " + server.store());
  const Ended ended = run({"/bin/sh", "-c", replaced(now, "^orvane", ORVANE_PATH)});

  EXPECT_EQ(ended.how, "exit 0") << ended.err;
  EXPECT_EQ(server.streams(), std::vector<std::string>{unfinished});
  open.closeInput();
  EXPECT_EQ(open.wait().how, "exit 0");
}

TEST(Documents, OperationsGuideHasTheSizeOfAPair) {
  Server server;
  const std::uint64_t queues =
      std::filesystem::file_size("/dev/shm/" + server.queue()) +
      std::filesystem::file_size("/dev/shm/" + server.queue() + "Response");

  EXPECT_TRUE(
      contains(readFile(OPERATIONS_PATH), "that is " + std::to_string(queues + 4096) + " bytes"));
}

TEST(Documents, OperationsGuideCountsTheLeasesInDockersDefault) {
  const TempFolder folder;
  const std::string socket = folder.path() + "/socket";
  Server server({"--socket", socket, "--shm-limit", "32MiB"});

  std::vector<std::unique_ptr<Lease>> leases;
  try {
    for (;;) {
      leases.push_back(std::make_unique<Lease>(socket, 30));
    }
  } catch (const Ox_ErrnoException& e) {
    EXPECT_EQ(e.status(), 1005);
  }

  EXPECT_EQ(leases.size(), 3U);
  EXPECT_TRUE(contains(readFile(OPERATIONS_PATH),
                       "Leases may take half of that, so there is room for 3 by default"));
}

}  // namespace
}  // namespace orvane::test
