// Several files over leases: each is labelled with its name, and another label needs another lease.

#include <gtest/gtest.h>

#include <filesystem>

#include "orvane/commands/send_lease_fixture.hpp"
#include "support/eventually.hpp"
#include "support/fake_server.hpp"
#include "support/queue_pair.hpp"
#include "support/server.hpp"
#include "support/text.hpp"

namespace orvane::test {
namespace {

class SendOfSeveralFiles : public SendLeaseTest {};

// "Nothing was sent" would be wrong: the files before this lease are stored.
TEST_F(SendOfSeveralFiles, ALaterLeaseWhoseQueueIsGoneLeavesWhatIsStoredUnknown) {
  const QueuePair queues;
  FakeServer server;
  server.serveEach({{.says = {"lease " + queues.name(),
                              "receipt stream=20261121T023224-4711_0 records=1 bytes=5 segments=1 "
                              "end=closed"}},
                    {.says = {"lease orvane_test_that_is_gone"}}});
  writeFile(folder.path() + "/a", "first");
  writeFile(folder.path() + "/b", "second");

  const Ended ended = run({ORVANE_PATH, "send", "--socket", server.path(), "--transport", "queue",
                           folder.path() + "/a", folder.path() + "/b"});

  EXPECT_EQ(ended.how, "exit 4");
  EXPECT_TRUE(startsWith(ended.err, "orvane send: while sending " + folder.path() +
                                        "/b (1 of 2 files stored): no queue named "))
      << ended.err;
}

TEST_F(SendOfSeveralFiles, EachFileIsLabelledWithItsName) {
  Server server({"--socket", socket});
  const std::string tooLong(254, 'x');
  const std::string cut = std::string(127, 'x') + "\xc3\xa4\xc3\xa4";
  for (const std::string& name : {std::string("my log"), std::string("a\nb"), tooLong, cut}) {
    writeFile(folder.path() + "/" + name, "data");
  }

  const Ended ended = run(sendCommand({folder.path() + "/my log", "-", folder.path() + "/a\nb",
                                       folder.path() + "/" + tooLong, folder.path() + "/" + cut}),
                          "data");

  EXPECT_EQ(ended.how, "exit 0") << ended.err;
  ASSERT_EQ(server.streams().size(), 5U);
  EXPECT_EQ(server.fact(0, "label"), "my%20log");
  EXPECT_EQ(server.fact(1, "label"), "none");
  EXPECT_EQ(server.fact(2, "label"), "a?b");
  EXPECT_EQ(server.fact(3, "label"), std::string(128, 'x'));
  EXPECT_EQ(server.fact(4, "label"), std::string(127, 'x'));
  EXPECT_NE(server.fact(0, "queue"), server.fact(1, "queue")) << "a lease has one label";
}

TEST_F(SendOfSeveralFiles, FilesWithOneLabelShareALease) {
  Server server({"--socket", socket});
  writeFile(folder.path() + "/a", "first");
  writeFile(folder.path() + "/b", "second");

  const Ended ended = run(
      sendCommand({"--label", "nightly run", folder.path() + "/a", "-", folder.path() + "/b"}), "");

  EXPECT_EQ(ended.how, "exit 0") << ended.err;
  ASSERT_EQ(server.streams().size(), 3U);
  for (std::size_t stream = 0; stream < 3; ++stream) {
    EXPECT_EQ(server.fact(stream, "label"), "nightly%20run");
    EXPECT_EQ(server.fact(stream, "queue"), server.fact(0, "queue"));
  }
}

TEST_F(SendOfSeveralFiles, WithJsonHasTheLeaseAndTheLabelOfEachStream) {
  Server server({"--socket", socket});
  writeFile(folder.path() + "/my log", "first");

  const Ended ended = run(sendCommand({"--json", folder.path() + "/my log", "-"}), "more");

  EXPECT_EQ(ended.how, "exit 0") << ended.err;
  const std::string name = folder.path().substr(folder.path().rfind('/') + 1);
  const auto line = [&](const std::string& file, std::size_t number, const std::string& label) {
    return R"({"file":")" + file + R"(","queue":")" + name + R"(","stream":")" + server.id(number) +
           R"(","label":)" + label + R"(,"records":1,)";
  };
  EXPECT_TRUE(startsWith(ended.out, line(folder.path() + "/my log", 0, R"("my log")")))
      << ended.out;
  EXPECT_TRUE(contains(ended.out, "\n" + line("-", 1, "null"))) << ended.out;
}

TEST_F(SendOfSeveralFiles, AnEmptyLabelIsNone) {
  Server server({"--socket", socket});
  EXPECT_EQ(run(sendCommand({"--label", "", "/dev/null"})).how, "exit 0");
  EXPECT_EQ(server.fact(0, "label"), "none");
}

TEST_F(SendOfSeveralFiles, OneLeaseAfterTheOtherNeedsNoMoreThanOne) {
  for (const char* const transport : {"ring", "queue"}) {
    Server server({"--socket", socket, "--pairs-per-user", "1"});
    std::vector<std::string> arguments = {"--transport", transport};
    for (int file = 0; file < 20; ++file) {
      arguments.push_back(folder.path() + "/" + std::to_string(file));
      writeFile(arguments.back(), std::to_string(file));
    }

    const Ended ended = run(sendCommand(arguments));

    EXPECT_EQ(ended.how, "exit 0") << ended.err;
    EXPECT_EQ(server.streams().size(), 20U);
  }
}

TEST_F(SendOfSeveralFiles, AServerThatGivesNoOtherLeaseIsReportedWithTheFile) {
  Server server({"--socket", socket});
  Process send(sendCommand({"-", "/dev/null"}));
  ASSERT_TRUE(eventually([&] { return server.streams().size() == 1; }));
  std::filesystem::remove(socket);
  send.closeInput();

  const Ended ended = send.wait();

  EXPECT_EQ(ended.how, "exit 4");
  EXPECT_EQ(ended.err,
            "orvane send: while sending /dev/null (1 of 2 files stored): got no lease: No server "
            "to ask for a lease at " +
                socket +
                ": No such file or directory; is it running, and may this user connect?\n");
}

}  // namespace
}  // namespace orvane::test
