// The real server: signals, its end, and faults that only a separate process can show.

#include "support/server_process.hpp"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <csignal>
#include <filesystem>
#include <orvane/orvane.hpp>

#include "support/eventually.hpp"
#include "support/manifest.hpp"
#include "support/queue_pair.hpp"
#include "support/served.hpp"
#include "support/temp_folder.hpp"

namespace {

using boost::interprocess::message_queue;
using boost::interprocess::open_only;
using orvane::pvk_shm_response_t;
using orvane::ShmWriter;
using orvane::test::Answer;
using orvane::test::attach;
using orvane::test::BatchBytes;
using orvane::test::Bytes;
using orvane::test::bytesOf;
using orvane::test::eventually;
using orvane::test::kStoppedNotice;
using orvane::test::namesIn;
using orvane::test::plainManifest;
using orvane::test::QueueName;
using orvane::test::readFile;
using orvane::test::ServerProcess;
using orvane::test::takeAnswers;
using orvane::test::TempFolder;
using orvane::test::uniqueQueueName;

class ServerProcessTest : public testing::Test {
 protected:
  ServerProcessTest() { EXPECT_TRUE(server.isServing()); }

  void expectGone() const {
    EXPECT_FALSE(std::filesystem::exists("/dev/shm/" + name));
    EXPECT_FALSE(std::filesystem::exists("/dev/shm/" + name + "Response"));
  }
  static void write(ShmWriter& writer, const std::string& text) {
    writer.writeSegment(reinterpret_cast<const unsigned char*>(text.data()), text.size());
  }
  // The next answer, which is to come within the test's patience.
  static Answer await(message_queue& answers) {
    pvk_shm_response_t response;
    message_queue::size_type size = 0;
    unsigned priority = 0;
    const auto deadline =
        boost::posix_time::microsec_clock::universal_time() + boost::posix_time::seconds(30);
    if (!answers.timed_receive(&response, sizeof(response), size, priority, deadline)) {
      return {-1, "no answer came"};
    }
    return {response.status, response.text};
  }
  std::string streamFolder() const {
    const auto names = namesIn(folder.path());
    return names.size() == 1 ? folder.path() + "/" + names[0] : "not one stream";
  }

  // Small messages, so that a file size limit can let the queue pass and not the data.
  static constexpr rlim_t kFileSizeLimit = 100000;

  TempFolder folder;
  const QueueName nameGuard{uniqueQueueName()};
  const QueueName responseGuard{nameGuard.text() + "Response"};
  const std::string& name = nameGuard.text();
  ServerProcess server{
      {"--queue", name, "--store", folder.path(), "--messages", "4", "--message-size", "10000"},
      {.fileSizeLimit = kFileSizeLimit}};
};

class EndingSignal : public ServerProcessTest, public testing::WithParamInterface<int> {};

TEST_P(EndingSignal, EndsAnIdleServerAndRemovesItsQueues) {
  server.signal(GetParam());
  EXPECT_EQ(server.wait(), 0);
  expectGone();
  EXPECT_TRUE(server.output().ends_with("\nTIME info 0 orvaned::serve: stopped serving queue " +
                                        name + ": the server was stopped\n"));
}

INSTANTIATE_TEST_SUITE_P(Signal, EndingSignal, testing::Values(SIGTERM, SIGINT, SIGHUP));

TEST_F(ServerProcessTest, StoresAStream) {
  message_queue answers(open_only, (name + "Response").c_str());
  ShmWriter writer("stream", name, 20, 5, false);
  writer.open();
  EXPECT_EQ(await(answers), (Answer{0, ""}));
  write(writer, "hello");
  writer.close();
  const Answer receipt = await(answers);
  EXPECT_EQ(receipt.status, 0);
  EXPECT_TRUE(receipt.text.ends_with(" records=1 bytes=5 segments=1 end=closed")) << receipt;
  EXPECT_EQ(readFile(streamFolder() + "/segment-000000"), "hello");
}

TEST_F(ServerProcessTest, FinishesWhatIsQueuedWhenItIsStopped) {
  ShmWriter writer("stream", name, 20, 5, false);
  server.signal(SIGSTOP);
  server.waitUntilStopped();
  writer.open();
  write(writer, "one ");
  writer.flush_shm_buffer(20);
  write(writer, "two");
  writer.endSegment();
  writer.close();
  server.signal(SIGTERM);
  server.signal(SIGCONT);
  EXPECT_EQ(server.wait(), 0);
  expectGone();
  EXPECT_EQ(readFile(streamFolder() + "/segment-000000"), "one two");
  const std::string manifest = plainManifest(readFile(streamFolder() + "/manifest"));
  EXPECT_TRUE(manifest.ends_with("end=closed\nreason=\n")) << manifest;
}

TEST_F(ServerProcessTest, CutsAnOpenStreamOffAndSendsItsNoticeWhenItIsStopped) {
  message_queue answers(open_only, (name + "Response").c_str());
  ShmWriter writer("stream", name, 20, 5, false);
  writer.open();
  write(writer, "hello");
  writer.flush_shm_buffer(20);
  server.signal(SIGTERM);
  EXPECT_EQ(server.wait(), 0);
  EXPECT_EQ(takeAnswers(answers).at(0), (Answer{1004, kStoppedNotice}));
  const std::string manifest = plainManifest(readFile(streamFolder() + "/manifest"));
  EXPECT_TRUE(manifest.ends_with("end=cut-off\nreason=the server was stopped\n")) << manifest;
}

TEST_F(ServerProcessTest, AFileSizeLimitIsAnAnswerAndNotTheServersEnd) {
  message_queue answers(open_only, (name + "Response").c_str());
  ShmWriter writer("stream", name, 20, 5, false);
  const std::string text(9000, 'x');
  Answer error{0, ""};
  writer.open();
  eventually([&] {
    try {
      write(writer, text);
      writer.flush_shm_buffer(20);  // takes an answer itself, if one is there already
    } catch (const Ox_ErrnoException& e) {
      error = {e.status(), e.what()};
    }
    for (const Answer& answer : takeAnswers(answers)) {
      error = error.status == 0 ? answer : error;
    }
    return error.status != 0;
  });
  EXPECT_EQ(error.status, 1003);
  EXPECT_TRUE(error.text.starts_with("File too large: cannot write " + folder.path())) << error;
  EXPECT_TRUE(server.isRunning());
  server.signal(SIGTERM);
  EXPECT_EQ(server.wait(), 0);
}

TEST_F(ServerProcessTest, OutlivesTheReaderOfItsLines) {
  message_queue send(open_only, name.c_str());
  message_queue answers(open_only, (name + "Response").c_str());
  server.closeOutput();
  for (int i = 0; i < 3; ++i) {  // each one is logged
    send.send("rubbish!", 8, 1);
    EXPECT_EQ(await(answers).status, 1000);
  }
  server.signal(SIGTERM);
  EXPECT_EQ(server.wait(), 0);
  expectGone();
}

TEST(ServerWithoutStandardError, KeepsItsLinesOutOfTheStore) {
  const TempFolder folder;
  const QueueName name(uniqueQueueName());
  const QueueName responseName(name.text() + "Response");
  ServerProcess server({"--queue", name.text(), "--store", folder.path()},
                       {.standardErrorClosed = true});
  const auto send = attach(name.text());
  const Bytes batch =
      BatchBytes().records({{.type = 0}, {.type = 1, .seqNo = 2, .data = bytesOf("data")}}).bytes();
  send->send(batch.data(), batch.size(), 1);
  send->send("rubbish!", 8, 1);
  server.signal(SIGTERM);
  EXPECT_EQ(server.wait(), 0);
  const std::string stream = folder.path() + "/" + namesIn(folder.path()).at(0);
  EXPECT_EQ(readFile(stream + "/segment-000000.part"), "data");
}

// A producer that dies while it holds the queue's lock: what it sends cannot be read.
void dieInsideTheQueue(const std::string& name) {
  const pid_t child = fork();
  if (child == 0) {
    const rlimit noCore{0, 0};
    setrlimit(RLIMIT_CORE, &noCore);
    std::signal(SIGSEGV, SIG_DFL);
    message_queue queue(open_only, name.c_str());
    const void* unreadable = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    queue.send(unreadable, 4096, 1);
    _exit(0);
  }
  int status = 0;
  waitpid(child, &status, 0);
  ASSERT_TRUE(WIFSIGNALED(status));
}

TEST_F(ServerProcessTest, MakesTheQueueAnewWhenAProducerDiesInsideIt) {
  message_queue answers(open_only, (name + "Response").c_str());
  ShmWriter writer("stream", name, 20, 5, false);
  writer.open();
  EXPECT_EQ(await(answers), (Answer{0, ""}));
  dieInsideTheQueue(name);
  ASSERT_TRUE(server.says("serving queue ", 2));
  const std::string reason = "a process died inside the queue";
  EXPECT_TRUE(server.says(" error 1 orvaned::serve: queue " + name + ": " + reason + "\n"))
      << server.output();
  EXPECT_EQ(takeAnswers(answers), (std::vector<Answer>{{1004, reason}}));
  const std::string manifest = plainManifest(readFile(streamFolder() + "/manifest"));
  EXPECT_TRUE(manifest.ends_with("end=broken\nreason=" + reason + "\n")) << manifest;
  message_queue newAnswers(open_only, (name + "Response").c_str());
  ShmWriter next("stream", name, 20, 5, false);
  next.open();
  EXPECT_EQ(await(newAnswers), (Answer{0, ""}));
}

}  // namespace
