// When data is brought onto the disk. A pipe tells: it takes data, but refuses to be synced.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <utility>

#include "store/output_file.hpp"
#include "store/store.hpp"
#include "support/temp_folder.hpp"
#include "support/throws.hpp"
#include "support/wire.hpp"

namespace {

using orvane::test::bytesOf;
using orvane::test::namesIn;
using orvane::test::TempFolder;
using orvane::test::throwsErrno;
using orvaned::OutputFile;
using orvaned::Sync;

using Names = std::vector<std::string>;

// Its files are pipes.
class PipeDirectory : public orvaned::LocalDirectory {
 public:
  using LocalDirectory::LocalDirectory;

  tool::Fd append(const std::string& name) override {
    return tool::Fd(::open(pathOf(name).c_str(), O_WRONLY | O_CLOEXEC));
  }
};

class PipeAccess : public orvaned::StoreAccess {
 public:
  explicit PipeAccess(std::string storeFolder) : folder(std::move(storeFolder)) {}

  NewStream createStream() override { return {{}, nullptr}; }
  std::unique_ptr<orvaned::StreamDirectory> outside() override {
    return std::make_unique<PipeDirectory>(folder);
  }

 private:
  const std::string folder;
};

class SyncTest : public testing::Test {
 protected:
  SyncTest() {
    mkfifo(path.c_str(), 0600);
    reader = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  }
  ~SyncTest() override { close(reader); }

  bool refusesToSync(const std::function<void()>& call) const {
    return throwsErrno(1003, "Invalid argument: cannot sync " + path, call);
  }

  TempFolder folder;
  PipeDirectory directory{folder.path()};
  const std::string path = folder.path() + "/out";
  int reader = -1;
};

TEST_F(SyncTest, AFileIsSyncedBeforeItGetsItsFinalName) {
  for (const Sync sync : {Sync::segment, Sync::always}) {
    OutputFile file(&directory, "out", sync);
    file.append(bytesOf("data"));
    EXPECT_TRUE(refusesToSync([&] { file.finish("final"); }));
    EXPECT_EQ(namesIn(folder.path()), Names{"out"});
  }
}

TEST_F(SyncTest, AFlushSyncsOnlyWithAlways) {
  OutputFile always(&directory, "out", Sync::always);
  always.append(bytesOf("data"));
  EXPECT_TRUE(refusesToSync([&] { always.flush(); }));
  for (const Sync sync : {Sync::segment, Sync::none}) {
    OutputFile file(&directory, "out", sync);
    file.append(bytesOf("data"));
    file.flush();
  }
}

TEST_F(SyncTest, AFlushWithoutNewDataDoesNotSync) {
  OutputFile file(&directory, "out", Sync::always);
  file.flush();
  file.append({});
  file.flush();
}

TEST_F(SyncTest, SettlingSyncsUnlessItIsLeftToTheSystem) {
  for (const Sync sync : {Sync::segment, Sync::always}) {
    OutputFile file(&directory, "out", sync);
    file.append(bytesOf("data"));
    EXPECT_TRUE(refusesToSync([&] { file.settle(); }));
  }
  OutputFile file(&directory, "out", Sync::none);
  file.append(bytesOf("data"));
  file.settle();
}

TEST_F(SyncTest, NothingIsSyncedWhenThatIsLeftToTheSystem) {
  OutputFile file(&directory, "out", Sync::none);
  file.append(bytesOf("data"));
  file.finish("final");
  EXPECT_EQ(namesIn(folder.path()), Names{"final"});
}

TEST_F(SyncTest, RecordsOutsideStreamsAreSyncedOnlyWithAlways) {
  const std::string outside = folder.path() + "/q-outside-records";
  std::filesystem::rename(path, outside);
  const orvane::pvk_shm_message_t header;
  const orvane::ShmBatch::Entry entry(header, nullptr);
  orvaned::Store always(std::make_unique<PipeAccess>(folder.path()), "q", Sync::always);
  always.storeOutside(entry);
  EXPECT_TRUE(
      throwsErrno(1003, "Invalid argument: cannot sync " + outside, [&] { always.flush(); }));
  orvaned::Store segment(std::make_unique<PipeAccess>(folder.path()), "q", Sync::segment);
  segment.storeOutside(entry);
  segment.flush();
}

TEST_F(SyncTest, AFolderThatCannotBeSyncedIsNamed) {
  const std::string none = folder.path() + "/none";
  EXPECT_TRUE(throwsErrno(1003, "No such file or directory: cannot sync " + none,
                          [&] { orvaned::syncFolder(none); }));
}

}  // namespace
