// How a process gets into the store, and what keeps others away from its streams.

#include "store/store_access.hpp"

#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <filesystem>

#include "shm/fd.hpp"
#include "store/unfinished_streams.hpp"
#include "support/temp_folder.hpp"

namespace orvane::test {
namespace {

namespace fs = std::filesystem;

using orvaned::LocalDirectory;
using orvaned::StoreAccess;
using orvaned::Sync;
using tool::Fd;

TEST(StreamLockTest, KeepsAnotherServerFromFinishingALiveStream) {
  const TempFolder store;
  orvaned::LocalAccess access(store.path(), {"orders"}, Sync::none);
  StoreAccess::NewStream stream = access.createStream();
  EXPECT_FALSE(orvaned::LocalUnfinishedStreams(store.path()).next());
  stream.folder.reset();
  const auto found = orvaned::LocalUnfinishedStreams(store.path()).next();
  ASSERT_TRUE(found);
  EXPECT_EQ(found->head.stream, stream.head.stream);
}

// A server that is killed while it tries leaves nothing behind then.
TEST(StoreTrial, PutsNoNameIntoTheStore) {
  const TempFolder store;
  const Fd events(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
  ASSERT_GE(inotify_add_watch(events.get(), store.path().c_str(), IN_CREATE | IN_MOVED_TO), 0);
  orvaned::checkWritable(store.path());
  char event[512];
  EXPECT_EQ(read(events.get(), event, sizeof event), -1);
  EXPECT_EQ(errno, EAGAIN);
  writeFile(store.path() + "/name", "");
  EXPECT_GT(read(events.get(), event, sizeof event), 0);
}

TEST(StreamLockTest, LeavesAFolderThatHasNoNameYetToItsLivingServer) {
  const TempFolder store;
  const std::string left = store.path() + "/.orders-20261121T023224-4711_0.new";
  fs::create_directory(left);
  {
    LocalDirectory living(left);
    ASSERT_TRUE(living.lock());
    EXPECT_FALSE(orvaned::LocalUnfinishedStreams(store.path()).next());
    EXPECT_TRUE(fs::exists(left));
  }
  EXPECT_FALSE(orvaned::LocalUnfinishedStreams(store.path()).next());
  EXPECT_FALSE(fs::exists(left));
}

}  // namespace
}  // namespace orvane::test
