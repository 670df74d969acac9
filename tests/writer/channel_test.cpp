#include <dlfcn.h>
#include <gtest/gtest.h>
#include <link.h>

#include <array>
#include <cstring>
#include <type_traits>

#include "support/recording_sink.hpp"
#include "support/stream.hpp"
#include "support/throws.hpp"
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

// The compiler compares the order of the other members with that of the constructor's initializers,
// and AttachmentOrder shows the order in which the queues and the batch are destroyed.
TEST(ShmWriterMembers, StandInTheirDeclaredOrder) {
  Stream stream;
  ShmWriter& writer = stream.writer;
  const std::array offsets = {
      offsetIn(writer, headerOf(writer)), offsetIn(writer, responseQueueOf(writer)),
      offsetIn(writer, batchOf(writer)), offsetIn(writer, segmentFirstWriteOf(writer)),
      offsetIn(writer, lastSegmentStateOf(writer))};
  for (std::size_t i = 1; i < offsets.size(); ++i) {
    EXPECT_LT(offsets[i - 1], offsets[i]) << "member " << i;
  }
}

TEST(ShmWriterMembers, HaveTheirStartingValues) {
  Stream stream({.timeout = 5, .stopTimeout = 86401});
  EXPECT_TRUE(segmentFirstWriteOf(stream.writer));
  EXPECT_EQ(static_cast<int>(lastSegmentStateOf(stream.writer)), 0);
  EXPECT_EQ(stream.flushed(), std::vector<Record>());
  RecordingSink sink(RecordingSink::Tracing::on);
  stream.writer.stop(true);
  EXPECT_EQ(sink.take().at(2), traced("write_data: write header.type =4, len=0, timeout=86401s"));
  stream.writer.stop(false);
  EXPECT_EQ(sink.take().at(2), traced("write_data: write header.type =4, len=0, timeout=5s"));
  EXPECT_EQ(stream.sent(), (std::vector<Record>{{.type = 4, .seqNo = 1}}));
  stream.pair.postBytes(hex("07"));
  EXPECT_TRUE(throwsErrno(7, "", [&] { stream.writer.flush_shm_buffer(0); }));
}

}  // namespace
}  // namespace orvane::test
