// Real servers that compress what they store.

#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>

#include "support/eventually.hpp"
#include "support/lease_fixture.hpp"
#include "support/manifest.hpp"
#include "support/process.hpp"
#include "support/text.hpp"

namespace orvane::test {
namespace {

// Data that shrinks, as one record of a segment.
Record shrinking(std::uint64_t seqNo, const std::string& text) {
  return {.type = 1, .seqNo = seqNo, .segmentDone = 0, .segAlg = 1, .data = bytesOf(text)};
}

class CompressingServer : public LeaseTest {
 protected:
  static constexpr std::size_t kMiB = 1 << 20;

  void startWith(const std::string& sync, const std::string& method) {
    server.reset();
    server = std::make_unique<ServerProcess>(
        Words{"--socket", socket, "--store", store.path(), "--sync", sync, "--compress", method});
    ASSERT_TRUE(server->says("serving leases at ")) << server->output();
  }

  // The answered part of a segment that has not ended, more than a MiB: a large record and small
  // ones.
  static std::string sendPart(Producer& queues) {
    std::string sent;
    EXPECT_EQ(queues.ask({kOpen}), (Answer{0, ""}));
    for (std::uint64_t seqNo = 2; seqNo < 12; ++seqNo) {
      const std::string text =
          std::string(seqNo == 4 ? kMiB - 1000 : 200, 'x') + std::to_string(seqNo) + "\n";
      EXPECT_EQ(queues.ask({shrinking(seqNo, text)}), (Answer{0, ""}));
      sent += text;
    }
    return sent;
  }

  // The stream's only segment is compressed, is whole for zstdcat, and has all this.
  static void expectUnfinished(const std::string& folder, const std::string& sent) {
    EXPECT_EQ(namesIn(folder), (Words{"manifest", "segment-000000.zst.part"}));
    const Ended ended = run({"zstdcat", folder + "/segment-000000.zst.part"});
    EXPECT_EQ(ended.how, "exit 0") << ended.err;
    EXPECT_TRUE(ended.out == sent);
    EXPECT_TRUE(
        contains(readFile(folder + "/manifest"),
                 "\nunfinished file=segment-000000.zst.part bytes=" + std::to_string(sent.size())));
  }
};

TEST_F(CompressingServer, StoresWhatShrinksWithEveryLevelAndCountsWhatWasSent) {
  for (const char* method : {"zstd", "zstd:1", "zstd:19"}) {
    startWith("segment", method);
    LeasedProducer producer(socket);
    const std::string first = sendPart(producer.queues);
    const std::string second(kMiB, 'y');
    const std::string receipt = "receipt stream=" + streamOf(producer.name) + " records=11 bytes=" +
                                std::to_string(first.size() + second.size()) +
                                " segments=1 end=closed";
    producer.queues.ask({shrinking(12, second)});
    EXPECT_EQ(producer.queues.ask({{.type = 3, .seqNo = 13}}), (Answer{0, receipt}));
    const std::string stream = folderOf(producer.name);
    EXPECT_EQ(namesIn(stream), (Words{"manifest", "segment-000000.zst"}));
    EXPECT_LT(std::filesystem::file_size(stream + "/segment-000000.zst"), 2000U);
    EXPECT_TRUE(run({"zstdcat", stream + "/segment-000000.zst"}).out == first + second);
    const Ended dump = run({ORVANE_PATH, "dump", stream});
    EXPECT_EQ(dump.how, "exit 0");
    EXPECT_TRUE(contains(dump.out, "\n  segment-000000.zst: whole\n")) << dump.out;
  }
}

class CompressingServerDeath : public CompressingServer,
                               public testing::WithParamInterface<const char*> {};

TEST_P(CompressingServerDeath, LosesNothingThatItAnswered) {
  startWith(GetParam(), "zstd");
  LeasedProducer producer(socket);
  const std::string sent = sendPart(producer.queues);
  const std::string stream = folderOf(producer.name);
  EXPECT_EQ(namesIn(stream), (Words{"manifest.part", "segment-000000.zst.part"}));
  server->killAll();
  EXPECT_EQ(server->wait(), -SIGKILL);
  EXPECT_EQ(run({"zstdcat", stream + "/segment-000000.zst.part"}).how, "exit 1");

  startWith(GetParam(), "zstd");
  EXPECT_TRUE(server->says(" what a dead server left")) << server->output();
  expectUnfinished(stream, sent);
}

TEST_P(CompressingServerDeath, OfAWorkerLosesNothingThatItAnswered) {
  startWith(GetParam(), "zstd");
  LeasedProducer producer(socket);
  const std::string sent = sendPart(producer.queues);
  const std::string stream = folderOf(producer.name);
  kill(server->workerOf(producer.name), SIGKILL);
  EXPECT_TRUE(server->says(" what a dead worker left")) << server->output();
  expectUnfinished(stream, sent);
}

INSTANTIATE_TEST_SUITE_P(Sync, CompressingServerDeath, testing::Values("always", "segment", "none"),
                         [](const auto& test) { return test.param; });

}  // namespace
}  // namespace orvane::test
