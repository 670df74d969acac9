// What the examples do beside those that the README shows.

#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>
#include <orvane/orvane.hpp>
#include <queue/message_queue.hpp>
#include <sstream>

#include "support/eventually.hpp"
#include "support/queue_pair.hpp"
#include "support/server.hpp"
#include "support/text.hpp"

namespace orvane::test {
namespace {

// With all processes that it started, but for one that has ended.
bool isStopped(const Server& server) {
  const std::string pid = std::to_string(server.pid());
  std::istringstream children(pid + " " + readFile("/proc/" + pid + "/task/" + pid + "/children"));
  for (std::string child; children >> child;) {
    const std::string stat = readFile("/proc/" + child + "/stat");
    if (!contains(stat, ") T ") && !contains(stat, ") Z ")) {
      return false;
    }
  }
  return true;
}

class Segments : public testing::Test {
 protected:
  std::vector<std::string> command(const std::vector<std::string>& files) const {
    std::vector<std::string> words = {SEGMENTS_PATH, socket};
    words.insert(words.end(), files.begin(), files.end());
    return words;
  }
  std::string file(const std::string& name, const std::string& content) const {
    writeFile(folder.path() + "/" + name, content);
    return folder.path() + "/" + name;
  }

  const TempFolder folder;
  const std::string socket = folder.path() + "/socket";
};

TEST_F(Segments, StoresEachFileAsASegmentAndPrintsTheReceipt) {
  Server server({"--socket", socket});

  const Ended ended =
      run(command({file("a", "first"), file("b", std::string(3000000, 'b')), file("c", "last")}));

  EXPECT_EQ(ended.how, "exit 0") << ended.err;
  EXPECT_EQ(ended.out, "receipt stream=" + server.fact(0, "stream") +
                           " records=25 bytes=3000009 segments=3 end=closed\n");
  const std::string stream = server.streams().at(0);
  EXPECT_EQ(readFile(stream + "/segment-000000"), "first");
  EXPECT_TRUE(readFile(stream + "/segment-000001") == std::string(3000000, 'b'));
  EXPECT_EQ(readFile(stream + "/segment-000002"), "last");
}

TEST_F(Segments, LosesNothingWhenTheServerIsSlow) {
  Server server({"--socket", socket});
  Process producer(command({"/dev/stdin"}));
  ASSERT_TRUE(eventually([&] { return server.streams().size() == 1; }));
  server.process().signalAll(SIGSTOP);
  ASSERT_TRUE(eventually([&] { return isStopped(server); }));

  // All of it is read: eight messages, one that finds no room, and a record behind it.
  const std::string data(9 * 1048576 + 131072, 'x');
  producer.write(data);
  producer.closeInput();
  EXPECT_TRUE(eventually([&] {
    return contains(producer.errorOutput(),
                    "producer: the server is slow: Timed out after waiting 2s to send data to ");
  }));
  server.process().signalAll(SIGCONT);

  const Ended ended = producer.wait();
  EXPECT_EQ(ended.how, "exit 0") << ended.err;
  EXPECT_TRUE(ended.out.ends_with(" records=73 bytes=9568256 segments=1 end=closed\n"));
  EXPECT_TRUE(server.content(0) == data);
}

TEST_F(Segments, EndsWithTheServersRefusal) {
  Server server({"--socket", socket}, {.fileSizeLimit = 9 << 20});

  const Ended ended = run(command({file("large", std::string(20 << 20, 'x'))}));

  EXPECT_EQ(ended.how, "exit 1");
  EXPECT_EQ(ended.out, "");
  EXPECT_TRUE(startsWith(ended.err, "producer: File too large: cannot write "));
  EXPECT_EQ(server.fact(0, "end"), "broken");
}

TEST_F(Segments, StopsTheStreamWhenAFileCannotBeRead) {
  Server server({"--socket", socket});

  const Ended ended = run(command({file("a", "first"), folder.path() + "/none"}));

  EXPECT_EQ(ended.how, "exit 1");
  EXPECT_EQ(ended.out, "");
  EXPECT_EQ(ended.err, "producer: cannot read " + folder.path() + "/none\n");
  EXPECT_TRUE(eventually([&] { return server.fact(0, "end") == "stopped"; }));
}

class Receiver : public testing::Test {
 protected:
  Receiver() {
    EXPECT_TRUE(eventually([this] { return std::filesystem::exists("/dev/shm/" + name.text()); }));
  }

  const QueueName name{uniqueQueueName()};
  const QueueName responseName{name.text() + "Response"};
  Process receiver{{RECEIVER_PATH, name.text()}};
};

TEST_F(Receiver, PrintsTheRecordsOfAProducer) {
  const Ended producer = run({WRITER_QUEUE_PATH, name.text()});
  EXPECT_EQ(producer.how, "exit 0") << producer.err;

  const Ended ended = receiver.wait();

  EXPECT_EQ(ended.how, "exit 0") << ended.err;
  EXPECT_EQ(ended.out,
            "type=0, len=0 (0,0,0,0,0,1,0,0,0,2864434397)\n"
            "type=1, len=20, crc=1146291980 (2,1,20,0,0,0,0,0,0,2864434397)\n"
            "type=2, len=0 (3,2,0,0,0,0,0,0,0,2864434397)\n"
            "type=3, len=0 (4,3,0,0,1,1,0,0,0,2864434397)\n");
  EXPECT_EQ(sharedMemoryNamed(name.text()), std::vector<std::string>{});
}

TEST_F(Receiver, AnswersTheCommandWithAReceipt) {
  const Ended sent = run({ORVANE_PATH, "send", "--queue", name.text(), ORVANE_PATH});
  EXPECT_EQ(sent.how, "exit 0") << sent.err;
  EXPECT_EQ(receiver.wait().how, "exit 0");
}

TEST_F(Receiver, AnswersWhatIsNoBatchWithTheReason) {
  using boost::interprocess::message_queue;
  using boost::interprocess::open_only;
  message_queue batches(open_only, name.text().c_str());
  message_queue answers(open_only, responseName.text().c_str());
  batches.send("rubbish!", 8, 1);
  pvk_shm_response_t answer;
  message_queue::size_type size = 0;
  unsigned priority = 0;
  ASSERT_TRUE(
      eventually([&] { return answers.try_receive(&answer, sizeof answer, size, priority); }));

  EXPECT_EQ(answer.status, 1000);
  EXPECT_STREQ(answer.text,
               "Could not deserialize ShmBatch::MetaData from buffer because the magic value "
               "1920295522 is corrupt (expected=4278251025)");
  EXPECT_EQ(run({WRITER_QUEUE_PATH, name.text()}).how, "exit 0");
  EXPECT_EQ(receiver.wait().how, "exit 0");
}

TEST(OwnLogging, TakesTheLinesOfTheLibrary) {
  const Ended ended = run({OWN_LOGGING_PATH});
  EXPECT_EQ(ended.how, "exit 0");
  EXPECT_EQ(ended.out,
            "[info 0] orders::main: 14 crates of oranges\n"
            "[error 28] orders::main: no room for the 15th\n");
  EXPECT_EQ(ended.err, "");
}

}  // namespace
}  // namespace orvane::test
