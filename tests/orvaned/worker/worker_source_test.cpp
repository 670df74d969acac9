// A worker whose batches come from a source that no producer of this project is.

#include <gtest/gtest.h>

#include <filesystem>
#include <orvane/server_status.hpp>
#include <string>
#include <vector>

#include "store/store.hpp"
#include "support/manifest.hpp"
#include "support/recording_sink.hpp"
#include "support/temp_folder.hpp"
#include "support/wire.hpp"
#include "worker/worker.hpp"

namespace orvane::test {
namespace {

using orvaned::Ending;

// One batch that opens a stream; what follows is left to the tests.
class SomeSource : public orvaned::BatchSource {
 public:
  std::size_t waiting() override { return 3; }
  void answer(const pvk_shm_response_t& response) override {
    answers.push_back(std::to_string(response.status) + " " + response.text);
  }
  void postPending() override {}
  void discardResponses() override {}
  bool wait() override { return true; }
  tool::Totals& totals() override { return counted; }

  std::vector<std::string> answers;

 protected:
  const Bytes open = BatchBytes().records({{.type = 0}}).bytes();

 private:
  tool::Totals counted;
};

class EndlessSource : public SomeSource {
 public:
  std::optional<std::span<const unsigned char>> receive() override { return open; }
};

class SourceThatBreaks : public SomeSource {
 public:
  std::optional<std::span<const unsigned char>> receive() override {
    if (!answers.empty()) {
      throw orvaned::SourceBroken("the tail went back");
    }
    return open;
  }
};

class WorkerSource : public testing::Test {
 protected:
  // The last lines of the only stream's manifest.
  std::string ending() const {
    const std::string folder = store.path() + "/" + namesIn(store.path()).at(0);
    const std::string manifest = plainManifest(readFile(folder + "/manifest"));
    return manifest.substr(manifest.find("\nend=") + 1);
  }

  RecordingSink sink;
  TempFolder store;
  orvaned::Store files{store.path(), "q", orvaned::Sync::none};
};

TEST_F(WorkerSource, IsEmptiedAtTheEndOnlyOfWhatWaitedThen) {
  const Ending stopped = {"the server was stopped", "the server was stopped"};
  EndlessSource source;
  orvaned::Worker worker("q", source, files);
  worker.run([&](auto) { return &stopped; });
  EXPECT_EQ(source.answers,
            (std::vector<std::string>{"0 ", "0 ", "0 ", "1004 the server was stopped"}));
}

TEST_F(WorkerSource, ThatBreaksEndsTheWorkerAndItsStream) {
  SourceThatBreaks source;
  orvaned::Worker worker("q", source, files);
  try {
    worker.run([](auto) { return nullptr; });
    ADD_FAILURE() << "nothing was thrown";
  } catch (const orvaned::PairFailed& e) {
    EXPECT_STREQ(e.what(), "queue q: the tail went back");
  }
  EXPECT_EQ(source.answers, (std::vector<std::string>{"0 ", "1004 the tail went back"}));
  EXPECT_EQ(ending(), "end=broken\nreason=the tail went back\n");
}

}  // namespace
}  // namespace orvane::test
