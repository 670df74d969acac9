#include <dlfcn.h>
#include <gtest/gtest.h>
#include <link.h>

#include <array>
#include <cstring>
#include <type_traits>

#include "support/stream.hpp"
#include "support/writer_members.hpp"

namespace orvane::test {
namespace {

static_assert(std::is_abstract_v<Channel>);
static_assert(std::is_abstract_v<ChannelWriter>);
static_assert(std::is_base_of_v<Channel, ChannelWriter>);
static_assert(std::is_base_of_v<ChannelWriter, ShmWriter>);
static_assert(std::has_virtual_destructor_v<Channel>);
static_assert(!std::is_copy_constructible_v<ShmWriter>);
static_assert(!std::is_copy_assignable_v<ShmWriter>);

static_assert(std::is_same_v<decltype(&ShmWriter::write_data),
                             void (ShmWriter::*)(const pvk_shm_message_t*, const unsigned char*,
                                                 unsigned int, bool)>);
static_assert(
    std::is_same_v<decltype(&ShmWriter::flush_shm_buffer), void (ShmWriter::*)(unsigned int)>);

// Callers may hand over a name where a channel is expected.
template <class Base>
struct Named : Base {
  using Base::Base;
  void close() override {}
};
struct NamedWriter : Named<ChannelWriter> {
  using Named<ChannelWriter>::Named;
  void open() override {}
  void setSegmentAlg(orvane_seg_state_t, unsigned long, unsigned long, unsigned long) override {}
  void writeSegment(const unsigned char*, unsigned long) override {}
  void endSegment() override {}
  void stop(bool) override {}
};
static_assert(std::is_convertible_v<const std::string&, Named<Channel>>);
static_assert(std::is_convertible_v<const std::string&, NamedWriter>);

TEST(Hierarchy, IsMadeOfANameWithoutACast) {
  const Named<Channel>& channel = std::string("stream");
  const NamedWriter& writer = std::string("stream");
  EXPECT_NE(static_cast<const void*>(&channel), static_cast<const void*>(&writer));
}

// By the platform's C++ ABI a pointer to a virtual function is 1 + 8 times its slot.
template <class Function>
std::ptrdiff_t slotOf(Function function) {
  std::ptrdiff_t value = 0;
  std::memcpy(&value, &function, sizeof value);
  return (value - 1) / 8;
}

template <class Class>
void expectSlots() {
  EXPECT_EQ(slotOf(&Class::close), 0);  // the destructor takes the slots 1 and 2
  EXPECT_EQ(slotOf(&Class::open), 3);
  EXPECT_EQ(slotOf(&Class::setSegmentAlg), 4);
  EXPECT_EQ(slotOf(&Class::writeSegment), 5);
  EXPECT_EQ(slotOf(&Class::endSegment), 6);
  EXPECT_EQ(slotOf(&Class::stop), 7);
}

TEST(VirtualSlots, HaveTheirOrderInEveryClass) {
  EXPECT_EQ(slotOf(&Channel::close), 0);
  expectSlots<ChannelWriter>();
  expectSlots<ShmWriter>();
}

std::size_t slotsOf(const char* vtableSymbol) {
  void* vtable = dlsym(RTLD_DEFAULT, vtableSymbol);
  Dl_info info;
  void* symbol = nullptr;
  if (vtable == nullptr || dladdr1(vtable, &info, &symbol, RTLD_DL_SYMENT) == 0) {
    return 0;
  }
  return static_cast<const ElfW(Sym)*>(symbol)->st_size / sizeof(void*) - 2;  // offset, type
}

TEST(VirtualSlots, HaveNoneBesides) {
  EXPECT_EQ(slotsOf("_ZTVN6orvane7ChannelE"), 3U);
  EXPECT_EQ(slotsOf("_ZTVN6orvane13ChannelWriterE"), 8U);
  EXPECT_EQ(slotsOf("_ZTVN6orvane9ShmWriterE"), 8U);
}

// A caller that was compiled against these slots and knows nothing else.
TEST(VirtualSlots, AreCalledByNumber) {
  Stream stream;
  auto* writer = new ShmWriter("stream", stream.pair.name(), 7, 0, false);
  void** slots = nullptr;
  std::memcpy(&slots, static_cast<void*>(writer), sizeof slots);
  reinterpret_cast<void (*)(void*)>(slots[3])(writer);  // open
  EXPECT_EQ(stream.sent(), (std::vector<Record>{{.type = 0}}));
  reinterpret_cast<void (*)(void*, std::int32_t, unsigned long, unsigned long, unsigned long)>(
      slots[4])(writer, 1, 11, 22, 33);
  reinterpret_cast<void (*)(void*, const void*, unsigned long)>(slots[5])(writer, "abc", 3);
  reinterpret_cast<void (*)(void*)>(slots[6])(writer);               // endSegment
  reinterpret_cast<void (*)(void*, bool)>(slots[7])(writer, false);  // stop
  Record expected{.type = 1,
                  .seqNo = 2,
                  .segmentDone = 0,
                  .segAlg = 1,
                  .segParam1 = 11,
                  .segParam2 = 22,
                  .segParam3 = 33,
                  .data = bytesOf("abc")};
  std::vector<Record> records = stream.sent();
  ASSERT_EQ(records.size(), 3U);
  EXPECT_EQ(records[0], expected);
  EXPECT_EQ(records[1].type, 2U);
  EXPECT_EQ(records[2].type, 4U);
  reinterpret_cast<void (*)(void*)>(slots[0])(writer);  // close
  EXPECT_EQ(stream.sent().at(0).type, 3U);
  reinterpret_cast<void (*)(void*)>(slots[2])(writer);  // the deleting destructor
  EXPECT_EQ(stream.pair.waiting(), 0U);
}

class NullWriter : public ChannelWriter {
 public:
  using ChannelWriter::ChannelWriter;
  void close() override {}
  void open() override {}
  void setSegmentAlg(orvane_seg_state_t, unsigned long, unsigned long, unsigned long) override {}
  void writeSegment(const unsigned char*, unsigned long) override {}
  void endSegment() override {}
  void stop(bool) override {}

  static constexpr bool NullWriter::*openMember() { return &NullWriter::isOpen; }
  static constexpr std::string NullWriter::*nameMember() { return &NullWriter::name; }
};

TEST(Channel, StartsClosedUnderACopyOfItsName) {
  std::string name = "channel";
  NullWriter writer(name);
  name = "other";
  EXPECT_FALSE(writer.*NullWriter::openMember());
  EXPECT_EQ(writer.*NullWriter::nameMember(), "channel");
}

template <class Object, class Member>
std::ptrdiff_t offsetIn(const Object& object, const Member& member) {
  return reinterpret_cast<const char*>(&member) - reinterpret_cast<const char*>(&object);
}

TEST(Channel, HoldsItsOpenStateBeforeItsName) {
  NullWriter writer("channel");
  EXPECT_LT(offsetIn(writer, writer.*NullWriter::openMember()),
            offsetIn(writer, writer.*NullWriter::nameMember()));
}

// Members are destroyed from the last to the first: the batch, the response queue, the send queue.
TEST(ShmWriterMembers, StandInTheirDeclaredOrder) {
  Stream stream;
  ShmWriter& writer = stream.writer;
  const std::array offsets = {offsetIn(writer, msgQueueNameOf(writer)),
                              offsetIn(writer, timeoutOf(writer)),
                              offsetIn(writer, stopTimeoutOf(writer)),
                              offsetIn(writer, perfBenchmarkEnabledOf(writer)),
                              offsetIn(writer, headerOf(writer)),
                              offsetIn(writer, responseOf(writer)),
                              offsetIn(writer, sendQueueOf(writer)),
                              offsetIn(writer, responseQueueOf(writer)),
                              offsetIn(writer, batchOf(writer)),
                              offsetIn(writer, lastMessageTypeOf(writer)),
                              offsetIn(writer, segmentFirstWriteOf(writer)),
                              offsetIn(writer, lastSegmentStateOf(writer)),
                              offsetIn(writer, segAlgOf(writer)),
                              offsetIn(writer, segParam1Of(writer)),
                              offsetIn(writer, segParam2Of(writer)),
                              offsetIn(writer, segParam3Of(writer))};
  for (std::size_t i = 1; i < offsets.size(); ++i) {
    EXPECT_LT(offsets[i - 1], offsets[i]) << "member " << i;
  }
}

TEST(ShmWriterMembers, HaveTheirStartingValues) {
  Stream stream({.timeout = 5, .stopTimeout = 86401});
  ShmWriter& writer = stream.writer;
  EXPECT_EQ(msgQueueNameOf(writer), stream.pair.name());
  EXPECT_EQ(timeoutOf(writer), 5U);
  EXPECT_EQ(stopTimeoutOf(writer), 86401U);
  EXPECT_FALSE(perfBenchmarkEnabledOf(writer));
  EXPECT_TRUE(headerOf(writer) == pvk_shm_message_t());
  EXPECT_TRUE(responseOf(writer) == pvk_shm_response_t());
  EXPECT_TRUE(batchOf(writer)->empty());
  EXPECT_EQ(lastMessageTypeOf(writer), 4U);
  EXPECT_TRUE(segmentFirstWriteOf(writer));
  EXPECT_EQ(static_cast<int>(lastSegmentStateOf(writer)), 0);
  EXPECT_EQ(static_cast<int>(segAlgOf(writer)), 0);
  EXPECT_EQ(segParam1Of(writer), 0U);
  EXPECT_EQ(segParam2Of(writer), 0U);
  EXPECT_EQ(segParam3Of(writer), 0U);
}

}  // namespace
}  // namespace orvane::test
