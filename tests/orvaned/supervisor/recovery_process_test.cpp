// A server that is killed in mid-stream, and the one that is started after it.

#include <gtest/gtest.h>

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <csignal>
#include <filesystem>

#include "support/eventually.hpp"
#include "support/manifest.hpp"
#include "support/served.hpp"
#include "support/server_process.hpp"
#include "support/temp_folder.hpp"

namespace recovery_process {
namespace {

using boost::interprocess::message_queue;
using boost::interprocess::open_only;
using orvane::pvk_shm_response_t;
using orvane::test::BatchBytes;
using orvane::test::Bytes;
using orvane::test::bytesOf;
using orvane::test::eventually;
using orvane::test::namesIn;
using orvane::test::plainManifest;
using orvane::test::QueueName;
using orvane::test::readFile;
using orvane::test::Record;
using orvane::test::ServerProcess;
using orvane::test::TempFolder;
using orvane::test::uniqueQueueName;
using orvane::test::writeFile;

using Names = std::vector<std::string>;

const Record kOpen{.type = 0, .seqNo = 0};
const Record kHello{.type = 1, .seqNo = 2, .segmentDone = 0, .data = bytesOf("hello")};
const Record kEnd{.type = 2, .seqNo = 3, .segmentDone = 0};
const Record kOn{.type = 1, .seqNo = 4, .segmentNo = 1, .segmentDone = 0, .data = bytesOf("on")};
const Record kClose{.type = 3, .seqNo = 5};

class ServerDeathTest : public testing::TestWithParam<const char*> {
 protected:
  // Starts a server, has it answer these batches, waits for this file, and kills it.
  void dieAfter(std::initializer_list<std::initializer_list<Record>> batches,
                const std::string& file) {
    ServerProcess server(arguments());
    ASSERT_TRUE(server.isServing());
    message_queue send(open_only, name.c_str());
    message_queue answers(open_only, (name + "Response").c_str());
    for (const auto& records : batches) {
      const Bytes batch = BatchBytes().records(records).bytes();
      send.send(batch.data(), batch.size(), 1);
      EXPECT_EQ(statusOf(answers), 0);
    }
    EXPECT_TRUE(eventually([&] { return std::filesystem::exists(stream() + "/" + file); })) << file;
    server.killAll();
    EXPECT_EQ(server.wait(), -SIGKILL);
  }

  // What the next server says until it serves, and has finished what it found.
  std::string nextServersLog(bool findsSomething = true) {
    ServerProcess server(arguments());
    EXPECT_TRUE(server.isServing());
    EXPECT_TRUE(!findsSomething || server.says(" what a dead server left"));
    server.signal(SIGTERM);
    EXPECT_EQ(server.wait(), 0);
    return server.output();
  }

  std::string stream() const { return store.path() + "/" + namesIn(store.path()).at(0); }
  std::string id() const { return namesIn(store.path()).at(0).substr(name.size() + 1); }

  const QueueName nameGuard{uniqueQueueName()};
  const QueueName responseGuard{nameGuard.text() + "Response"};
  const std::string& name = nameGuard.text();
  const TempFolder store;

 private:
  std::vector<std::string> arguments() const {
    return {"--queue", name, "--store", store.path(), "--sync", GetParam()};
  }
  static int statusOf(message_queue& answers) {
    pvk_shm_response_t response;
    message_queue::size_type size = 0;
    unsigned priority = 0;
    const auto deadline =
        boost::posix_time::microsec_clock::universal_time() + boost::posix_time::seconds(30);
    const bool came = answers.timed_receive(&response, sizeof(response), size, priority, deadline);
    return came ? response.status : -1;
  }
};

TEST_P(ServerDeathTest, LeavesWhatItAnsweredAndTheNextServerFinishesIt) {
  dieAfter({{kOpen, kHello, kEnd}, {kOn}}, "segment-000000");
  EXPECT_EQ(namesIn(stream()), (Names{"manifest.part", "segment-000000", "segment-000001.part"}));

  const std::string receipt =
      "receipt stream=" + id() + " records=1 bytes=5 segments=1 end=cut-off\n";
  const std::string log = nextServersLog();
  EXPECT_NE(log.find("queue " + name + ": finished what a dead server left: " + receipt),
            std::string::npos)
      << log;
  EXPECT_EQ(plainManifest(readFile(stream() + "/manifest")),
            "format=2\n"
            "queue=" +
                name +
                "\n"
                "stream=" +
                id() +
                "\n"
                "begun=TIME\n"
                "segment number=0 records=1 bytes=5 algorithm=0 parameters=0,0,0 "
                "crc32=3610a686 file=segment-000000\n"
                "unfinished file=segment-000001.part bytes=2 crc32=09b629c8\n" +
                receipt + "records=1\nbytes=5\nend=cut-off\nreason=the server died\n");
  EXPECT_EQ(readFile(stream() + "/segment-000000"), "hello");
  EXPECT_EQ(readFile(stream() + "/segment-000001.part"), "on");
}

TEST_P(ServerDeathTest, IsFoundOnlyOnce) {
  dieAfter({{kOpen, kHello}}, "segment-000000.part");
  EXPECT_NE(nextServersLog().find("a dead server"), std::string::npos);
  EXPECT_EQ(nextServersLog(false).find("a dead server"), std::string::npos);
}

TEST_P(ServerDeathTest, DoesNotHideDamage) {
  dieAfter({{kOpen, kHello, kEnd}}, "segment-000000");
  writeFile(stream() + "/segment-000000", "hellp");
  EXPECT_NE(nextServersLog().find("damaged files: 1, see its manifest"), std::string::npos);
  EXPECT_NE(plainManifest(readFile(stream() + "/manifest"))
                .find("\ndamaged file=segment-000000 reason=its checksum is bb18ab73 instead of "
                      "3610a686\n"),
            std::string::npos);
}

TEST_P(ServerDeathTest, DoesNotTouchAStreamThatHadEnded) {
  dieAfter({{kOpen, kHello, kEnd, kClose}}, "manifest");
  const std::string manifest = readFile(stream() + "/manifest");
  EXPECT_TRUE(plainManifest(manifest).ends_with("end=closed\nreason=\n")) << manifest;
  EXPECT_EQ(nextServersLog(false).find("a dead server"), std::string::npos);
  EXPECT_EQ(readFile(stream() + "/manifest"), manifest);
}

INSTANTIATE_TEST_SUITE_P(Sync, ServerDeathTest, testing::Values("always", "segment", "none"),
                         [](const auto& test) { return test.param; });

}  // namespace
}  // namespace recovery_process
