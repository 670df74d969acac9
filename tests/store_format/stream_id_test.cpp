#include "store_format/stream_id.hpp"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>

namespace stream_id {
namespace {

using tool::nameInId;
using tool::parseStreamId;
using tool::streamId;

constexpr char kStream[] = "20261121T023224-4711_0";

TEST(StreamId, HasNameLabelTimeProcessAndNumber) {
  EXPECT_EQ(streamId("orders", "app.log", kStream), "orders-app.log-20261121T023224-4711_0");
  EXPECT_EQ(streamId("orders", "", kStream), "orders-20261121T023224-4711_0");
}

TEST(StreamId, ReplacesOtherCharactersOfTheLabel) {
  EXPECT_EQ(streamId("q", "a b/c%d\xc3\xa4~", kStream), "q-a_b_c_d___-20261121T023224-4711_0");
  EXPECT_EQ(streamId("q", "azAZ09_.-", kStream), "q-azAZ09_.--20261121T023224-4711_0");
}

TEST(StreamId, HasAtMost64BytesOfTheLabel) {
  EXPECT_EQ(streamId("q", std::string(64, 'x'), kStream),
            "q-" + std::string(64, 'x') + "-" + kStream);
  EXPECT_EQ(streamId("q", std::string(65, 'x'), kStream),
            "q-" + std::string(64, 'x') + "-" + kStream);
}

TEST(StreamId, HasAtMost200BytesForWhichTheLabelIsCutBeforeTheName) {
  const std::string last = std::string("-") + kStream;  // 23 bytes
  const auto name = [](std::size_t size) { return std::string(size, 'n'); };
  const std::string label(64, 'x');
  EXPECT_EQ(streamId(name(112), label, kStream), name(112) + "-" + label + last);
  EXPECT_EQ(streamId(name(113), label, kStream), name(113) + "-" + label.substr(1) + last);
  EXPECT_EQ(streamId(name(175), label, kStream), name(175) + "-x" + last);
  EXPECT_EQ(streamId(name(176), label, kStream), name(176) + last);
  EXPECT_EQ(streamId(name(177), label, kStream), name(177) + last);
  EXPECT_EQ(streamId(name(178), label, kStream), name(177) + last);
  EXPECT_EQ(streamId(name(200), "", kStream), name(177) + last);
  for (std::size_t size = 1; size <= 200; ++size) {
    EXPECT_LE(streamId(name(size), label, kStream).size(), 200U);
  }
}

TEST(StreamId, EndsWithWhatReceiptsCallTheStream) {
  for (const std::string& id :
       {streamId("orders", "app-1", kStream), streamId(std::string(200, 'x'), "app-1", kStream)}) {
    const auto parts = parseStreamId(id);
    ASSERT_TRUE(parts) << id;
    EXPECT_EQ(parts->stream, kStream);
    EXPECT_EQ(parts->nameAndLabel + "-" + kStream, id);
  }
  EXPECT_EQ(parseStreamId("a-b-20261121T023224-1_4294967295")->nameAndLabel, "a-b");
}

TEST(StreamId, BeginsWithTheNameWhateverItsLabelIs) {
  EXPECT_EQ(nameInId(streamId("orders", "", kStream), ""), "orders");
  EXPECT_EQ(nameInId(streamId("or-ders", "app-1", kStream), "app-1"), "or-ders");
  EXPECT_EQ(nameInId(streamId("q", "a b%", kStream), "a b%"), "q");
  EXPECT_EQ(nameInId(streamId("q", std::string(128, 'x'), kStream), std::string(128, 'x')), "q");
  const std::string name(170, 'n');
  EXPECT_EQ(nameInId(streamId(name, "app.log", kStream), "app.log"), name);
  EXPECT_EQ(nameInId(streamId(std::string(180, 'n'), "app.log", kStream), "app.log"),
            std::string(177, 'n'));
  EXPECT_EQ(nameInId(streamId("app.log", "", kStream), "app.log"), "app.log");
  EXPECT_EQ(nameInId("renamed", "app.log"), "");
}

class NoStreamId : public testing::TestWithParam<const char*> {};

TEST_P(NoStreamId, IsNotTakenForOne) {
  EXPECT_FALSE(parseStreamId(GetParam()));
}

INSTANTIATE_TEST_SUITE_P(Name, NoStreamId,
                         testing::Values("", "q", "20261121T023224-4711_0",
                                         "-20261121T023224-4711_0", "q20261121T023224-4711_0",
                                         "q-20261121T023224-4711_", "q-20261121T023224-4711",
                                         "q-20261121T023224-_0", "q-20261121T02322-4711_0",
                                         "q-2026112T023224-4711_0", "q-20261121023224-4711_0",
                                         "q-20261121T023224-4711_0 ",
                                         "q-20261121T023224-4711_0.new"));

TEST(StreamIdName, OfASocketIsThatOfItsFileOrItsFolder) {
  EXPECT_EQ(tool::nameOfSocket("/run/orvaned/orders/socket"), "orders");
  EXPECT_EQ(tool::nameOfSocket("/run/orvaned/orders.sock"), "orders.sock");
  EXPECT_EQ(tool::nameOfSocket("/run/orvaned/socket.1"), "socket.1");
  EXPECT_EQ(tool::nameOfSocket("/socket"), "socket");
  EXPECT_EQ(tool::nameOfSocket("/x/my orders/socket"), "my_orders");
  EXPECT_EQ(tool::nameOfSocket("/x/.orders"), "_orders");
}

TEST(StreamIdName, OfASocketWithoutAFolderIsThatOfTheFolderOfThisProcess) {
  char folder[] = "/tmp/orvane-test-XXXXXX";
  ASSERT_NE(mkdtemp(folder), nullptr);
  const std::filesystem::path before = std::filesystem::current_path();
  std::filesystem::current_path(folder);
  EXPECT_EQ(tool::nameOfSocket("socket"), std::filesystem::path(folder).filename());
  std::filesystem::current_path(before);
  std::filesystem::remove(folder);
}

}  // namespace
}  // namespace stream_id
