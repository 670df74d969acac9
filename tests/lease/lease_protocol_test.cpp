#include "orvane/lease_protocol.hpp"

#include <gtest/gtest.h>

#include <string>

namespace orvane::test {
namespace {

const Receipt kReceipt{"20261121T023224-4711_0", 12, 9, 2, StreamEnd::closed};
constexpr char kReceiptText[] =
    "receipt stream=20261121T023224-4711_0 records=12 bytes=9 segments=2 end=closed";

template <typename Reply>
Reply parsed(const std::string& packet) {
  return std::get<Reply>(parseLeaseReply(packet).value());
}

TEST(LeaseProtocol, HasARequestInVersionOne) {
  EXPECT_EQ(kLeaseRequest, "orvane 1 lease");
  EXPECT_EQ(kLongestLeasePacket, 512U);
}

TEST(LeaseRequestPacket, HasOneFormForEachTransport) {
  EXPECT_EQ(packetOf(LeaseRequest{}), "orvane 1 lease");
  EXPECT_EQ(packetOf(LeaseRequest{8388608}), "orvane 1 ring 8388608");
  EXPECT_EQ(packetOf(LeaseRequest{18446744073709551615U}), "orvane 1 ring 18446744073709551615");
}

TEST(LeaseRequestPacket, HasTheLabelAsOneWord) {
  EXPECT_EQ(packetOf(LeaseRequest{0, "app.log"}), "orvane 1 lease label=app.log");
  EXPECT_EQ(packetOf(LeaseRequest{1048576, "daily=50% \xc3\xa4"}),
            "orvane 1 ring 1048576 label=daily=50%25%20\xc3\xa4");
}

TEST(LeaseRequestPacket, HasRoomForTheLongestLabel) {
  const LeaseRequest longest{18446744073709551615U, std::string(128, ' ')};
  const std::string packet = packetOf(longest);
  EXPECT_EQ(packet.size(), 425U);
  const auto read = parseLeaseRequest(packet);
  ASSERT_TRUE(read);
  EXPECT_EQ(read->ringBytes, longest.ringBytes);
  EXPECT_EQ(read->label, longest.label);
}

TEST(LeaseRequestPacket, GivesItsLabelBack) {
  const std::pair<const char*, const char*> requests[] = {
      {"orvane 1 lease", ""},
      {"orvane 1 lease label=", ""},
      {"orvane 1 lease labels=x", ""},
      {"orvane 1 lease label=app.log", "app.log"},
      {"orvane 1 ring 1048576 a=1 label=x=%25%20y b=2", "x=% y"}};
  for (const auto& [packet, label] : requests) {
    const auto request = parseLeaseRequest(packet);
    ASSERT_TRUE(request) << packet;
    EXPECT_EQ(request->label, label) << packet;
  }
}

TEST(LeaseRequestPacket, HasNoLabelThatIsInvalid) {
  for (const std::string& label :
       {std::string(129, 'x'), std::string("%"), std::string("%41"), std::string("%2"),
        std::string("%2c"), std::string("%0A"), std::string("%7F"), std::string("a%00")}) {
    EXPECT_FALSE(parseLeaseRequest("orvane 1 lease label=" + label)) << label;
  }
  EXPECT_TRUE(parseLeaseRequest("orvane 1 lease label=" + std::string(128, 'x')));
}

TEST(LeaseLabel, HasAtMost128BytesAndNoControlCharacters) {
  EXPECT_TRUE(isLabel(""));
  EXPECT_TRUE(isLabel("daily backup, 50%~\xc3\xa4\xff"));
  EXPECT_TRUE(isLabel(std::string(128, 'x')));
  EXPECT_FALSE(isLabel(std::string(129, 'x')));
  for (const char c : {'\0', '\n', '\x1f', '\x7f'}) {
    EXPECT_FALSE(isLabel(std::string("a") + c));
  }
}

TEST(LeaseRequestPacket, IsReadWithWordsThatAreNotKnownYet) {
  const std::pair<const char*, std::uint64_t> requests[] = {
      {"orvane 1 lease", 0},
      {"orvane 1 lease color=blue", 0},
      {"orvane 1 lease a= b==c d=\xc3\xa4", 0},
      {"orvane 1 ring 8388608", 8388608},
      {"orvane 1 ring 1", 1},
      {"orvane 1 ring 007", 7},
      {"orvane 1 ring 18446744073709551615", 18446744073709551615U},
      {"orvane 1 ring 1048576 a=1 b=2", 1048576}};
  for (const auto& [packet, bytes] : requests) {
    const auto request = parseLeaseRequest(packet);
    ASSERT_TRUE(request) << packet;
    EXPECT_EQ(request->ringBytes, bytes) << packet;
  }
}

TEST(TotalsRequestPacket, NamesTheRingBeforeTheOneThatIsWanted) {
  EXPECT_EQ(packetOf(TotalsRequest{}), "orvane 1 totals");
  EXPECT_EQ(packetOf(TotalsRequest{"r_1"}), "orvane 1 totals after=r_1");
}

TEST(TotalsRequestPacket, IsReadWithWordsThatAreNotKnownYet) {
  const std::pair<const char*, const char*> requests[] = {
      {"orvane 1 totals", ""},          {"orvane 1 totals after=", ""},
      {"orvane 1 totals after=r", "r"}, {"orvane 1 totals a=1 after=r=s b=2", "r=s"},
      {"orvane 1 totals afters=r", ""}, {"orvane 1 totals after=q after=r", "r"}};
  for (const auto& [packet, after] : requests) {
    const auto request = parseTotalsRequest(packet);
    ASSERT_TRUE(request) << packet;
    EXPECT_EQ(request->after, after) << packet;
    EXPECT_FALSE(parseLeaseRequest(packet)) << packet;
  }
}

TEST(TotalsRequestPacket, IsNothingElse) {
  for (const char* packet :
       {"", "orvane", "orvane 1", "orvane 1 total", "orvane 1 totals ", "orvane 1 totals r",
        "orvane 1 totals =r", "orvane 2 totals", "orvane 1 totals\n", "orvane 1 lease",
        "orvane 1 ring 1048576", "totals"}) {
    EXPECT_FALSE(parseTotalsRequest(packet)) << packet;
  }
}

class NoLeaseRequest : public testing::TestWithParam<std::string> {};

TEST_P(NoLeaseRequest, IsNotTakenForOne) {
  EXPECT_FALSE(parseLeaseRequest(GetParam()));
}

INSTANTIATE_TEST_SUITE_P(
    Packet, NoLeaseRequest,
    testing::Values("", " ", "orvane", "orvane 1", "orvane 1 ", "orvane 1 queue", "orvane 2 lease",
                    "orvane 11 lease", "Orvane 1 lease", " orvane 1 lease", "orvane  1 lease",
                    "orvane 1 leases", "orvane 1 lease ", "orvane 1 lease  a=1", "orvane 1 lease a",
                    "orvane 1 lease a=1 ", "orvane 1 lease a=1  b=2", "orvane 1 lease =1",
                    "orvane 1 lease a=1 b", "orvane 1 lease\n", "orvane 1 lease a=\x7f",
                    "orvane 1 ring", "orvane 1 ring ", "orvane 1 ring 0", "orvane 1 ring -1",
                    "orvane 1 ring +1", "orvane 1 ring 1x", "orvane 1 ring x",
                    "orvane 1 ring 18446744073709551616", "orvane 1 ring 1 2", "orvane 1 ring a=1",
                    "orvane 1 ring 1  a=1", "orvane 1 ring 1\ta=1", "orvane 1 totals", "lease q"));

TEST(LeaseReplyPacket, HasOneFormForEachKind) {
  EXPECT_EQ(packetOf(LeaseGranted{"q"}), "lease q");
  EXPECT_EQ(packetOf(RingGranted{"r", 8388608}), "ring r 8388608");
  EXPECT_EQ(packetOf(LeaseRefused{1005, "too many"}), "refused 1005 too many");
  EXPECT_EQ(packetOf(kReceipt), kReceiptText);
  EXPECT_EQ(packetOf(StreamFailed{1003, "disk full"}), "failed 1003 disk full");
  EXPECT_EQ(packetOf(TotalsFound{"r"}), "totals r");
  EXPECT_EQ(packetOf(TotalsFound{}), "totals");
}

TEST(LeaseReplyPacket, IsCutToWhatAProducerReads) {
  const std::string packet = packetOf(LeaseRefused{1006, std::string(600, 'x')});
  EXPECT_EQ(packet, "refused 1006 " + std::string(499, 'x'));
}

TEST(LeaseReplyPacket, HasNoControlCharacters) {
  EXPECT_EQ(packetOf(StreamFailed{1003, "a\nb\x1b\x7f\xc3\xa4 ~"}), "failed 1003 a?b??\xc3\xa4 ~");
}

TEST(LeaseReply, IsReadFromItsPacket) {
  EXPECT_EQ(parsed<LeaseGranted>("lease q").queue, "q");
  EXPECT_EQ(parsed<RingGranted>("ring r 8388608").name, "r");
  EXPECT_EQ(parsed<RingGranted>("ring r 8388608").bytes, 8388608U);
  EXPECT_EQ(parsed<RingGranted>("ring r 18446744073709551615").bytes, 18446744073709551615U);
  EXPECT_EQ(parsed<LeaseRefused>("refused 1005 too many").status, 1005);
  EXPECT_EQ(parsed<LeaseRefused>("refused 1005 too many").reason, "too many");
  EXPECT_EQ(parsed<LeaseRefused>("refused 2147483647 ").reason, "");
  EXPECT_EQ(parsed<Receipt>(kReceiptText), kReceipt);
  EXPECT_EQ(parsed<StreamFailed>("failed 1000 a batch").status, 1000);
  EXPECT_EQ(parsed<StreamFailed>("failed 1000 a batch").reason, "a batch");
  EXPECT_EQ(parsed<TotalsFound>("totals r").name, "r");
  EXPECT_EQ(parsed<TotalsFound>("totals").name, "");
}

TEST(LeaseReply, HasAtMost512Bytes) {
  EXPECT_TRUE(parseLeaseReply("lease " + std::string(506, 'q')));
  EXPECT_FALSE(parseLeaseReply("lease " + std::string(507, 'q')));
}

class NoLeaseReply : public testing::TestWithParam<std::string> {};

TEST_P(NoLeaseReply, IsNotTakenForOne) {
  EXPECT_FALSE(parseLeaseReply(GetParam()));
}

INSTANTIATE_TEST_SUITE_P(
    Packet, NoLeaseReply,
    testing::Values("", "lease", "lease ", "lease a b", "lease a/b", "leaseq", " lease q",
                    "refused", "refused 1005", "refused 999 no", "refused -1 no",
                    "refused 2147483648 no", "refused x no", "failed 15 late", "failed 1003",
                    "receipt", "receipt x", "lease a\nb", "refused 1005 \x1b[2J",
                    "failed 1003 \x7f", "ring", "ring ", "ring r", "ring r ", "ring  8", "ring r x",
                    "ring r 8 ", "ring r 8 9", "ring r 8x", "ring r -8", "ring r/s 8", "ring r\n 8",
                    "ring r 18446744073709551616", "orvane 1 lease", "totals ", "totals r ",
                    "totals r s", "totals r/s", "totalsr", "totals\n"));

}  // namespace
}  // namespace orvane::test
