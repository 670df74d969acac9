#include <gtest/gtest.h>

#include <boost/interprocess/exceptions.hpp>
#include <memory>

#include "ox/errno_exception.hpp"
#include "replaced_memory.hpp"
#include "support/stream.hpp"
#include "support/writer_members.hpp"

namespace orvane::test {
namespace {

namespace ipc = boost::interprocess;
using Events = std::vector<std::string>;

TEST(AttachmentOrder, IsSendQueueAndResponseQueueEachOpenedOnce) {
  const QueuePair pair;
  ReplacedMemory memory;
  const ShmWriter writer("stream", pair.name(), 7, 0, false);
  EXPECT_EQ(memory.take(), (Events{"open " + pair.name(), "open " + pair.responseName()}));
}

TEST(AttachmentOrder, EndsAtAMissingSendQueueWhichIsTriedOnce) {
  const std::string missing = uniqueQueueName();
  ReplacedMemory memory;
  EXPECT_THROW(ShmWriter("stream", missing, 7, 0, false), ipc::interprocess_exception);
  EXPECT_EQ(memory.take(), Events{"open " + missing});
}

TEST(AttachmentOrder, EndsAtAMissingResponseQueueWhichIsTriedOnce) {
  const QueueName name(uniqueQueueName());
  const ipc::message_queue sendQueue(ipc::create_only, name.text().c_str(), 1, 1024);
  ReplacedMemory memory;
  EXPECT_THROW(ShmWriter("stream", name.text(), 7, 0, false), ipc::interprocess_exception);
  EXPECT_EQ(memory.take(), (Events{"open " + name.text(), "open " + name.text() + "Response",
                                   "unmap " + name.text()}));
}

TEST(AttachmentOrder, IsReversedWhenNoBatchCanBeMade) {
  const QueuePair pair({.messageSize = 7});
  ReplacedMemory memory;
  EXPECT_THROW(ShmWriter("stream", pair.name(), 7, 0, false), Ox_ErrnoException);
  EXPECT_EQ(memory.take(), (Events{"open " + pair.name(), "open " + pair.responseName(),
                                   "unmap " + pair.responseName(), "unmap " + pair.name()}));
}

TEST(AttachmentOrder, IsReversedInTheDestructorAfterTheBatchIsFreed) {
  QueuePair pair;
  for (const bool open : {false, true}) {
    auto writer = std::make_unique<ShmWriter>("stream", pair.name(), 7, 0, false);
    if (open) {
      writer->open();
    }
    ReplacedMemory memory(batchOf(*writer)->getRaw());
    writer.reset();
    EXPECT_EQ(memory.take(),
              (Events{"free", "unmap " + pair.responseName(), "unmap " + pair.name()}));
  }
}

TEST(AttachmentOrder, IsNotTouchedByAnInvalidTimeout) {
  const QueuePair pair;
  ReplacedMemory memory;
  EXPECT_THROW(ShmWriter("stream", pair.name(), 0, 0, false), Ox_ErrnoException);
  EXPECT_THROW(ShmWriter("stream", pair.name(), 86401, 0, false), Ox_ErrnoException);
  EXPECT_EQ(memory.take(), Events());
}

TEST(AttachmentOrder, IsOfTheConstructorAndTheDestructorOnly) {
  Stream stream;
  ReplacedMemory memory;
  stream.open();
  stream.write("a");
  stream.writer.endSegment();
  stream.writer.stop(true);
  stream.writer.close();
  stream.open();
  stream.writer.close();
  EXPECT_EQ(memory.take(), Events());
}

}  // namespace
}  // namespace orvane::test
