// `orvane ls` and `orvane stat` of the rings that a server leases at a socket.

#include <fcntl.h>

#include "ring/raw_ring.hpp"
#include "support/eventually.hpp"
#include "support/fake_server.hpp"
#include "support/lease_fixture.hpp"
#include "support/process.hpp"
#include "support/text.hpp"

namespace orvane::test {
namespace {

class RingTotals : public LeaseTest {
 protected:
  RingTotals() {
    start();
    pid = std::to_string(server->process());
  }

  // A ring, and the name of its lease.
  struct Ring {
    explicit Ring(const std::string& socket) : client(socket), granted(client.askForRing(kRing)) {}

    std::string name() const {
      const std::size_t begin = std::string("ring ").size();
      return granted.answer.substr(begin, granted.answer.rfind(' ') - begin);
    }
    void publish(std::initializer_list<Record> records) const {
      RawProducer(granted.files.at(0).get(), granted.files.at(1).get())
          .publish(BatchBytes().records(records).bytes());
    }

    const LeaseClient client;
    const LeaseClient::Ring granted;
  };

  Ended orvane(const std::vector<std::string>& arguments) const {
    std::vector<std::string> command = {ORVANE_PATH};
    command.insert(command.end(), arguments.begin(), arguments.end());
    command.insert(command.end(), {"--socket", socket});
    return run(command);
  }

  // Waits until the ring's five bytes are stored.
  void awaitHello(const Ring& ring) const {
    EXPECT_TRUE(eventually([&] {
      return contains(orvane({"stat", ring.name(), "--interval", "0", "--json"}).out,
                      R"("bytes":5,)");
    }));
  }

  // Waits until the worker of the ring is ready.
  void await(const Ring& ring) const {
    EXPECT_TRUE(eventually([&] { return orvane({"stat", ring.name()}).how == "exit 0"; }));
  }

  std::string pid;  // of the server
};

TEST_F(RingTotals, AreListed) {
  const Ring ring(socket);
  await(ring);
  const Ended ended = orvane({"ls"});
  EXPECT_EQ(ended.how, "exit 0");
  EXPECT_TRUE(matches(ended.out, "NAME +SIZE +MESSAGES +MODE +OWNER +SERVER\n" + ring.name() +
                                     " +1.05 MB +ring +- +[^ ]+ +" + pid + "\n"))
      << ended.out;
  EXPECT_TRUE(matches(orvane({"ls", "--json"}).out,
                      R"(\{"queue":")" + ring.name() +
                          R"(","bytes":1048576,"mode":null,"owner":"[^"]+",)"
                          R"("messages":null,"messageSize":null,"served":true,"server":)" +
                          pid + R"(\}\n)"));
}

TEST_F(RingTotals, AreShown) {
  const Ring ring(socket);
  RawProducer(ring.granted.files.at(0).get(), ring.granted.files.at(1).get())
      .file.put64(kBlocked, 1'234'567'890);
  ring.publish({kOpen, kHello});
  awaitHello(ring);
  const std::string out = orvane({"stat", ring.name(), "--interval", "0"}).out;
  EXPECT_TRUE(matches(out, "ring         " + ring.name() +
                               ", 1048576 bytes\n"
                               "served by    process " +
                               pid +
                               ", worker [0-9]+, since 20[-0-9T:]+Z\n"
                               "open stream  20[0-9T]+-[0-9]+_0\n"
                               "last batch   [0-9.]+ s ago\n"
                               "filled       [0-9]+ bytes, [0-9.]+ %, when the worker last looked\n"
                               "producer     blocked for 1.235 s, slept 0 times, as it says\n"
                               "\n"
                               " +total\n"
                               "batches +1\n"
                               "records +1\n"
                               "bytes +5\n"
                               "segments +0\n"
                               "streams +1\n"
                               "bad batches +0\n"
                               "error answers +0\n"))
      << out;
}

TEST_F(RingTotals, AreShownAsJson) {
  const Ring ring(socket);
  ring.publish({kOpen, kHello});
  awaitHello(ring);
  const std::string one = orvane({"stat", ring.name(), "--json", "--interval", "0.01"}).out;
  EXPECT_TRUE(one.starts_with(R"({"queue":")" + ring.name() +
                              R"(","messages":null,"messageSize":null,"served":true,)"))
      << one;
  EXPECT_TRUE(matches(one, R"(.*,"perSecond":\{.*\},"ring":\{"bytes":1048576,"filled":[0-9]+,)"
                           R"("producerBlocked":0.0,"producerSleeps":0\}\}\n)"))
      << one;
  const std::string all = orvane({"stat", "--json", "--interval", "0"}).out;
  EXPECT_TRUE(all.starts_with(R"({"queue":")" + ring.name())) << all;
}

TEST_F(RingTotals, OfAllRingsAreShownWithoutAName) {
  const Ring first(socket);
  const Ring second(socket);
  await(first);
  await(second);
  const std::string out = orvane({"stat", "--interval", "0"}).out;
  const std::string before = std::min(first.name(), second.name());
  const std::string after = std::max(first.name(), second.name());
  EXPECT_TRUE(out.starts_with("ring         " + before + ",")) << out;
  EXPECT_TRUE(contains(out, "\n\nring         " + after + ",")) << out;
}

TEST_F(RingTotals, OfNoRingAreNoLines) {
  const std::string none = "no rings at " + socket + " that this user may see\n";
  EXPECT_EQ(orvane({"ls"}).out, none);
  EXPECT_EQ(orvane({"stat"}).out, none);
  EXPECT_EQ(orvane({"ls", "--json"}).out, "");
  EXPECT_EQ(orvane({"stat", "--json"}).out, "");
  const Ended ended = orvane({"stat", "r"});
  EXPECT_EQ(ended.how, "exit 1");
  EXPECT_EQ(ended.err, "orvane stat: no ring r at " + socket + ": orvane ls --socket " + socket +
                           " lists those that this user may see\n");
}

TEST_F(RingTotals, NeedAServer) {
  const std::string nowhere = folder.path() + "/nowhere";
  for (const char* command : {"ls", "stat"}) {
    const Ended ended = run({ORVANE_PATH, command, "--socket", nowhere});
    EXPECT_EQ(ended.how, "exit 1");
    EXPECT_EQ(ended.err, std::string("orvane ") + command + ": no server at " + nowhere +
                             ": No such file or directory\n");
    const Ended tooLong = run({ORVANE_PATH, command, "--socket", std::string(200, 'x')});
    EXPECT_EQ(tooLong.how, "exit 2");
    EXPECT_EQ(tooLong.err, std::string("orvane ") + command +
                               ": --socket: a socket's path has 1 to 107 bytes (orvane " + command +
                               " --help shows the usage)\n");
  }
}

TEST(RingTotalsAnswer, OfAServerThatHasNoneIsGivenAsTheReason) {
  FakeServer server;
  server.serve({.says = {"refused 1007 this server understands \"orvane 1 lease\""}, .ends = true});

  const Ended ended = run({ORVANE_PATH, "stat", "--socket", server.path()});

  EXPECT_EQ(ended.how, "exit 1");
  EXPECT_EQ(ended.err,
            "orvane stat: the server refused: this server understands \"orvane 1 lease\"\n");
  EXPECT_EQ(server.requests(), (std::vector<std::string>{"orvane 1 totals"}));
}

class WrongAnswer : public testing::TestWithParam<const char*> {};

// None of them comes with a file.
TEST_P(WrongAnswer, IsNotUnderstood) {
  FakeServer server;
  server.serve({.says = {GetParam()}, .ends = true});

  const Ended ended = run({ORVANE_PATH, "ls", "--socket", server.path()});

  EXPECT_EQ(ended.how, "exit 1");
  EXPECT_EQ(ended.err,
            "orvane ls: the server's answer is not understood: install the same release of both\n");
}

INSTANTIATE_TEST_SUITE_P(From, WrongAnswer,
                         testing::Values("totals r", "lease q", "rubbish", "totals ",
                                         "totals a b"));

TEST(RingTotalsAnswer, WithAFileThatHoldsNoneIsAnError) {
  FakeServer server;
  const TempFolder folder;
  writeFile(folder.path() + "/file", std::string(1000, 'x'));
  const tool::Fd file(open((folder.path() + "/file").c_str(), O_RDONLY | O_CLOEXEC));
  server.serve({.says = {"totals r"}, .files = {file.get()}, .ends = true});

  const Ended ended = run({ORVANE_PATH, "ls", "--socket", server.path()});

  EXPECT_EQ(ended.how, "exit 1");
  EXPECT_TRUE(ended.err.starts_with("orvane ls: ")) << ended.err;
}

}  // namespace
}  // namespace orvane::test
