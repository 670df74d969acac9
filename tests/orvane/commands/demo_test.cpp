#include <gtest/gtest.h>
#include <signal.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <filesystem>

#include "support/eventually.hpp"
#include "support/process.hpp"
#include "support/server.hpp"
#include "support/text.hpp"

namespace orvane::test {
namespace {

const std::vector<std::string> kNothingLeft;
const char kTimesAndRates[] =
    "transfer [0-9]+\\.[0-9][0-9] s, [0-9.]+ [kMG]?B/s, "
    "with the disk [0-9]+\\.[0-9][0-9] s, [0-9.]+ [kMG]?B/s, identical\n";

// `orvane demo` with its own folder for temporary files.
class Demo : public testing::Test {
 protected:
  std::vector<std::string> command(const std::vector<std::string>& arguments) const {
    std::vector<std::string> words = {ORVANE_PATH, "demo"};
    words.insert(words.end(), arguments.begin(), arguments.end());
    return words;
  }

  ProcessSetup around() const { return {.environment = {"TMPDIR=" + temporary.path()}}; }

  // What a demo that ran as this process left behind.
  std::vector<std::string> leftBy(const Process& demo) const {
    std::vector<std::string> left =
        sharedMemoryNamed("orvane-demo-" + std::to_string(demo.pid()) + "-");
    const std::vector<std::string> files = namesIn(temporary.path());
    left.insert(left.end(), files.begin(), files.end());
    return left;
  }

  Ended runClean(const std::vector<std::string>& arguments, const std::string& input = "") const {
    Process demo(command(arguments), around());
    demo.write(input);
    Ended ended = demo.wait();
    EXPECT_EQ(leftBy(demo), kNothingLeft);
    return ended;
  }

  const TempFolder temporary;
  const TempFolder folder;
};

// The server that a demo started; 0 while there is none.
pid_t serverOf(const Process& demo) {
  const std::string pid = std::to_string(demo.pid());
  const std::string children = readFile("/proc/" + pid + "/task/" + pid + "/children");
  return children.empty() ? 0 : std::stoi(children);
}

bool isGone(pid_t pid) {
  return kill(pid, 0) != 0;
}

TEST_F(Demo, MadeUpBytesComeBackIdentical) {
  const Ended ended = runClean({});

  EXPECT_EQ(ended.how, "exit 0");
  EXPECT_EQ(ended.err, "");
  EXPECT_TRUE(matches(
      ended.out, std::string("OK 268435456 bytes, 258 batches, 4 segments, ") + kTimesAndRates));
}

TEST_F(Demo, WithJsonPrintsNumbers) {
  const Ended ended = runClean({"--json", "-"}, "14 crates of oranges");

  EXPECT_EQ(ended.how, "exit 0");
  EXPECT_TRUE(matches(ended.out,
                      R"(\{"records":1,"bytes":20,"batches":[0-9]+,"segments":1,)"
                      R"("transferSeconds":[0-9.e-]+,"seconds":[0-9.]+,"identical":true\}\n)"));
}

TEST_F(Demo, ProgramComesBackIdentical) {
  const auto size = std::filesystem::file_size(ORVANED_PATH);

  const Ended ended = runClean({ORVANED_PATH});

  EXPECT_EQ(ended.how, "exit 0") << ended.err;
  EXPECT_TRUE(startsWith(ended.out, "OK " + std::to_string(size) + " bytes, "));
}

TEST_F(Demo, EmptyFileComesBackIdentical) {
  const Ended ended = runClean({"/dev/null"});

  EXPECT_EQ(ended.how, "exit 0") << ended.err;
  EXPECT_TRUE(
      matches(ended.out, std::string("OK 0 bytes, 2 batches, 0 segments, ") + kTimesAndRates));
}

TEST_F(Demo, SparseFileComesBackIdentical) {
  const std::string path = folder.path() + "/sparse";
  writeFile(path, "");
  ASSERT_EQ(truncate(path.c_str(), (200 << 20) + 1), 0);

  const Ended ended = runClean({path});

  EXPECT_EQ(ended.how, "exit 0") << ended.err;
  EXPECT_TRUE(startsWith(ended.out, "OK 209715201 bytes, "));
}

TEST_F(Demo, StandardInputComesBackIdentical) {
  const Ended ended = runClean({"-"}, std::string(3000000, 'x') + "end");

  EXPECT_EQ(ended.how, "exit 0") << ended.err;
  EXPECT_TRUE(startsWith(ended.out, "OK 3000003 bytes, "));
}

TEST_F(Demo, MissingFileIsReported) {
  const Ended ended = runClean({"/nonexistent"});

  EXPECT_EQ(ended.how, "exit 1");
  EXPECT_EQ(ended.err, "orvane demo: cannot open /nonexistent: No such file or directory\n");
}

TEST_F(Demo, TooLittleSpaceIsReportedBeforeAnythingIsMade) {
  struct statvfs space = {};
  ASSERT_EQ(statvfs(temporary.path().c_str(), &space), 0);
  const auto available = static_cast<off_t>(space.f_bavail * space.f_frsize);
  const std::string path = folder.path() + "/sparse";
  writeFile(path, "");
  ASSERT_EQ(truncate(path.c_str(), 2 * available), 0);

  const Ended ended = runClean({path});

  EXPECT_EQ(ended.how, "exit 1");
  EXPECT_TRUE(matches(ended.err, "orvane demo: " + temporary.path() +
                                     " has [0-9.]+ [kMGT]B free and [0-9.]+ [kMGT]B are needed: "
                                     "set TMPDIR to a folder with more room\n"));
}

TEST_F(Demo, MissingTemporaryFolderIsReported) {
  const Ended ended = run(command({"/dev/null"}), "", {.environment = {"TMPDIR=/nonexistent"}});

  EXPECT_EQ(ended.how, "exit 1");
  EXPECT_EQ(ended.err,
            "orvane demo: cannot make a folder in /nonexistent: No such file or directory; "
            "set TMPDIR to a folder that can be written\n");
}

TEST_F(Demo, MissingServerIsReported) {
  const std::string alone = folder.path() + "/orvane";
  std::filesystem::copy_file(ORVANE_PATH, alone);
  ProcessSetup noPath = around();
  noPath.environment.emplace_back("PATH=/nonexistent");

  Process demo({alone, "demo", "/dev/null"}, noPath);
  const Ended ended = demo.wait();

  EXPECT_EQ(ended.how, "exit 1");
  EXPECT_EQ(ended.err,
            "orvane demo: orvaned ended, exit code 127: cannot run orvaned: "
            "No such file or directory\n");
  EXPECT_EQ(leftBy(demo), kNothingLeft);
}

TEST_F(Demo, DiskThatFillsUpIsReported) {
  ProcessSetup smallFiles = around();
  smallFiles.fileSizeLimit = 9 << 20;

  Process demo(command({}), smallFiles);
  const Ended ended = demo.wait();

  EXPECT_EQ(ended.how, "exit 1");
  EXPECT_TRUE(contains(ended.err, "orvane demo: orvaned refused the stream: File too large"));
  EXPECT_EQ(leftBy(demo), kNothingLeft);
}

TEST_F(Demo, ServerThatDiesIsReported) {
  Process demo(command({"-"}), around());
  demo.write("a few bytes");
  ASSERT_TRUE(eventually([&] { return serverOf(demo) != 0 && !leftBy(demo).empty(); }));

  kill(serverOf(demo), SIGKILL);
  ASSERT_TRUE(eventually([&] { return demo.hasEnded(); }));

  const Ended ended = demo.wait();
  EXPECT_EQ(ended.how, "exit 1");
  EXPECT_TRUE(startsWith(ended.err, "orvane demo: orvaned ended, killed by signal 9: "));
  EXPECT_EQ(leftBy(demo), kNothingLeft);
}

TEST_F(Demo, KilledDemoTakesItsServerAndItsQueuesAlong) {
  Process demo(command({"-"}), around());
  demo.write("a few bytes");
  const std::string queue = "orvane-demo-" + std::to_string(demo.pid()) + "-";
  ASSERT_TRUE(eventually([&] { return sharedMemoryNamed(queue).size() == 4; }));
  const pid_t server = serverOf(demo);

  demo.signal(SIGKILL);

  EXPECT_EQ(demo.wait().how, "signal 9");
  EXPECT_TRUE(eventually([&] { return sharedMemoryNamed(queue).empty(); }));
  EXPECT_TRUE(eventually([&] { return isGone(server); }));
}

class DemoSignal : public Demo, public testing::WithParamInterface<int> {};

TEST_P(DemoSignal, LeavesNothingBehind) {
  Process demo(command({"-"}), around());
  demo.write("a few bytes");
  ASSERT_TRUE(eventually([&] { return serverOf(demo) != 0 && leftBy(demo).size() == 5; }));
  const pid_t server = serverOf(demo);

  demo.signal(GetParam());
  ASSERT_TRUE(eventually([&] { return demo.hasEnded(); }));

  const Ended ended = demo.wait();
  EXPECT_EQ(ended.how, "signal " + std::to_string(GetParam()));
  EXPECT_EQ(ended.out, "");
  EXPECT_EQ(ended.err, "orvane demo: interrupted\n");
  EXPECT_EQ(leftBy(demo), kNothingLeft);
  EXPECT_TRUE(isGone(server));
}

INSTANTIATE_TEST_SUITE_P(Each, DemoSignal, testing::Values(SIGINT, SIGTERM, SIGHUP),
                         [](const auto& parameter) {
                           return std::string(sigabbrev_np(parameter.param));
                         });

}  // namespace
}  // namespace orvane::test
