#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <ios>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "orvane/server_info.hpp"
#include "support/grouping_locale.hpp"

#include "plain_server_info.hpp"

namespace orvane {

// Reaches the record's private fields. Explicit instantiation is the one place where the language
// does not check access.
template <class Name, typename Name::Pointer kMember>
struct ServerInfoField {
  friend typename Name::Pointer fieldOf(Name) { return kMember; }
};

#define ORVANE_EXPOSE(FIELD, ...)              \
  struct Field_##FIELD {                       \
    using Pointer = __VA_ARGS__ ServerInfo::*; \
    friend Pointer fieldOf(Field_##FIELD);     \
  };                                           \
  template struct ServerInfoField<Field_##FIELD, &ServerInfo::FIELD>;

ORVANE_EXPOSE(ServerName, std::string)
ORVANE_EXPOSE(User, std::string)
ORVANE_EXPOSE(Passwd, std::string)
ORVANE_EXPOSE(AgentCfg, std::string)
ORVANE_EXPOSE(CurrentRoutingTable, std::string)
ORVANE_EXPOSE(RecommendRoutingTable, std::string)
ORVANE_EXPOSE(KeyDir, std::string)
ORVANE_EXPOSE(Flags, std::uint32_t)
ORVANE_EXPOSE(ReconnectTimeout, std::int32_t)
ORVANE_EXPOSE(BandwidthLimit, std::int32_t)
ORVANE_EXPOSE(LocalIp, std::string)
ORVANE_EXPOSE(InterfaceIp, std::string)
ORVANE_EXPOSE(InterfaceName, std::string)
ORVANE_EXPOSE(FPType, std::uint8_t)
ORVANE_EXPOSE(LastFPType, std::uint8_t)
ORVANE_EXPOSE(ClusterMode, std::uint32_t)
ORVANE_EXPOSE(ClusterName, std::string)
#undef ORVANE_EXPOSE

namespace {

using test::plain;

// Callers copy and move the record with their own code, compiled with this order.
TEST(ServerInfoFields, StandInDeclaredOrder) {
  const ServerInfo info("s", "u", "p", "a", "c", "r", "k");
  const auto* const start = reinterpret_cast<const char*>(&info);
  const auto offsets = [&](auto... names) {
    return std::vector<std::ptrdiff_t>{
        (reinterpret_cast<const char*>(&(info.*fieldOf(names))) - start)...};
  };
  EXPECT_EQ(offsets(Field_ServerName{}, Field_User{}, Field_Passwd{}, Field_AgentCfg{},
                    Field_CurrentRoutingTable{}, Field_RecommendRoutingTable{}, Field_KeyDir{}),
            (std::vector<std::ptrdiff_t>{0, 32, 64, 96, 128, 160, 192}));
  EXPECT_EQ(offsets(Field_Flags{}, Field_ReconnectTimeout{}, Field_BandwidthLimit{},
                    Field_LocalIp{}, Field_InterfaceIp{}, Field_InterfaceName{}),
            (std::vector<std::ptrdiff_t>{224, 228, 232, 240, 272, 304}));
  EXPECT_EQ(offsets(Field_FPType{}, Field_LastFPType{}, Field_ClusterMode{}, Field_ClusterName{}),
            (std::vector<std::ptrdiff_t>{336, 337, 340, 344}));
  EXPECT_EQ(sizeof(ServerInfo), 376U);
}

TEST(ServerInfoFields, HaveTheSentinelsThatCallersCompareWith) {
  EXPECT_EQ(ServerInfo::kNoFlags, 0U);
  EXPECT_EQ(ServerInfo::kNoReconnectTimeout, -1);
  EXPECT_EQ(ServerInfo::kNoBandwidthLimit, 0);
  EXPECT_EQ(ServerInfo::kNoFPType, 255);
  EXPECT_EQ(ServerInfo::kNoClusterMode, 4294967295U);
}

// Each of its seventeen fields has a different value.
ServerInfo full() {
  ServerInfo info = plain();
  info.setFlags(0xABCDE);
  info.setReconnectTimeout(12345);
  info.setBandwidthLimit(67890);
  info.setLocalIp("l");
  info.setInterfaceIp("i");
  info.setInterfaceName("n");
  info.setFPType(254);
  info.setLastFPType(2);
  info.setClusterMode(4294967290U);
  info.setClusterName("m");
  return info;
}

const std::string kStrings =
    "ServerName=s, User=u, AgentCfg=a, CurrentRoute=c, RecommendedRoute=r, KeyDir=k";

template <typename Manipulator>
std::string textOf(const ServerInfo& info, Manipulator manipulate) {
  std::ostringstream text;
  manipulate(text);
  text << info;
  return text.str();
}

TEST(ServerInfoComparison, LooksAtEachConstructorString) {
  const std::vector<ServerInfo> others = {
      {"x", "u", "p", "a", "c", "r", "k"}, {"s", "x", "p", "a", "c", "r", "k"},
      {"s", "u", "x", "a", "c", "r", "k"}, {"s", "u", "p", "x", "c", "r", "k"},
      {"s", "u", "p", "a", "x", "r", "k"}, {"s", "u", "p", "a", "c", "x", "k"},
      {"s", "u", "p", "a", "c", "r", "x"}};
  for (const ServerInfo& other : others) {
    EXPECT_FALSE(plain() == other) << other;
    EXPECT_TRUE(plain() != other) << other;
  }
}

TEST(ServerInfoComparison, LooksAtTheWholeOfEachSetting) {
  const std::vector<std::function<void(ServerInfo&)>> changes = {
      [](ServerInfo& info) { info.setFlags(1); },
      [](ServerInfo& info) { info.setFlags(0x10000); },
      [](ServerInfo& info) { info.setFlags(0x80000000); },
      [](ServerInfo& info) { info.setReconnectTimeout(0); },
      [](ServerInfo& info) { info.setReconnectTimeout(0xFFFF); },
      [](ServerInfo& info) { info.setBandwidthLimit(1); },
      [](ServerInfo& info) { info.setBandwidthLimit(0x10000); },
      [](ServerInfo& info) { info.setLocalIp("x"); },
      [](ServerInfo& info) { info.setLocalIp(std::string(1, '\0')); },
      [](ServerInfo& info) { info.setInterfaceIp("x"); },
      [](ServerInfo& info) { info.setInterfaceName("x"); },
      [](ServerInfo& info) { info.setFPType(2); },
      [](ServerInfo& info) { info.setLastFPType(2); },
      [](ServerInfo& info) { info.setClusterMode(0xFFFF); },
      [](ServerInfo& info) { info.setClusterName("x"); }};
  for (std::size_t i = 0; i < changes.size(); ++i) {
    ServerInfo other = plain();
    changes[i](other);
    EXPECT_FALSE(plain() == other) << "change " << i;
    EXPECT_TRUE(plain() != other) << "change " << i;
    EXPECT_TRUE(other == ServerInfo(other)) << "change " << i;
  }
}

TEST(ServerInfoCopy, HasEveryField) {
  const ServerInfo original = full();
  EXPECT_TRUE(ServerInfo(original) == original);
  ServerInfo assigned = plain();
  assigned = original;
  EXPECT_TRUE(assigned == original);
  const ServerInfo& itself = assigned;
  assigned = itself;
  EXPECT_TRUE(assigned == original);
  ServerInfo moved = plain();
  moved = std::move(assigned);
  EXPECT_TRUE(moved == original);
  EXPECT_TRUE(ServerInfo(std::move(moved)) == original);
}

TEST(ServerInfoPresence, LooksAtTheWholeOfANumber) {
  for (int shift = 0; shift < 32; ++shift) {
    const unsigned int bit = 1U << shift;
    ServerInfo info = plain();
    info.setFlags(bit);
    info.setBandwidthLimit(static_cast<int>(bit));
    info.setReconnectTimeout(static_cast<int>(~bit));
    info.setClusterMode(~bit);
    EXPECT_TRUE(info.hasFlags()) << bit;
    EXPECT_TRUE(info.hasBandwidthLimit()) << bit;
    EXPECT_TRUE(info.hasReconnectTimeout()) << bit;
    EXPECT_TRUE(info.hasClusterMode()) << bit;
    EXPECT_EQ(info.getFlags(), bit);
    EXPECT_EQ(info.getClusterMode(), ~bit);
  }
}

TEST(ServerInfoText, HasEveryNumberInTheBaseOfTheStream) {
  EXPECT_EQ(textOf(full(), [](std::ostream& text) { text << std::hex; }),
            kStrings +
                ", Flags=0xabcde, ReconnectTimeout=3039, BandwidthLimit=10932, LocalIp=l, "
                "InterfaceIp=i, InterfaceName=n, fptype=fe, ClusterMode=fffffffa, ClusterName=m");
  EXPECT_EQ(
      textOf(full(), [](std::ostream& text) { text << std::oct << std::showbase; }),
      kStrings +
          ", Flags=0xabcde, ReconnectTimeout=030071, BandwidthLimit=0204462, LocalIp=l, "
          "InterfaceIp=i, InterfaceName=n, fptype=0376, ClusterMode=037777777772, ClusterName=m");
}

TEST(ServerInfoText, HasEveryNumberInTheLocaleOfTheStream) {
  EXPECT_EQ(
      textOf(full(), [](std::ostream& text) { text.imbue(test::groupingLocale()); }),
      kStrings +
          ", Flags=0xab'cde, ReconnectTimeout=12'345, BandwidthLimit=67'890, LocalIp=l, "
          "InterfaceIp=i, InterfaceName=n, fptype=254, ClusterMode=4'294'967'290, ClusterName=m");
}

TEST(ServerInfoText, HasSignsOfSignedNumbersOnlyWhereTheStreamShowsThem) {
  EXPECT_EQ(textOf(full(), [](std::ostream& text) { text << std::showpos; }),
            kStrings +
                ", Flags=0xabcde, ReconnectTimeout=+12345, BandwidthLimit=+67890, LocalIp=l, "
                "InterfaceIp=i, InterfaceName=n, fptype=254, ClusterMode=4294967290, "
                "ClusterName=m");
}

TEST(ServerInfoText, HasNegativeNumbersWhole) {
  ServerInfo info = plain();
  info.setReconnectTimeout(-2147483647 - 1);
  info.setBandwidthLimit(-2147483647 - 1);
  EXPECT_EQ(textOf(info, [](std::ostream&) {}),
            kStrings + ", ReconnectTimeout=-2147483648, BandwidthLimit=-2147483648, fptype=1");
}

TEST(ServerInfoText, LeavesEveryFlagOfTheStreamAlone) {
  for (const std::ios_base::fmtflags flags :
       {std::ios_base::fmtflags{}, std::ios_base::oct | std::ios_base::showpos,
        std::ios_base::hex | std::ios_base::showbase | std::ios_base::uppercase}) {
    std::ostringstream text;
    text.flags(flags);
    text.fill('*');
    text << full();
    EXPECT_EQ(text.flags(), flags);
    EXPECT_EQ(text.fill(), '*');
    EXPECT_EQ(text.width(), 0);
  }
}

TEST(ServerInfoText, HasStringsWithZeroBytesWhole) {
  const auto withZero = [](char c) { return std::string({c, '\0', c}); };
  ServerInfo info(withZero('s'), withZero('u'), withZero('p'), withZero('a'), withZero('c'),
                  withZero('r'), withZero('k'));
  info.setLocalIp(withZero('l'));
  info.setInterfaceIp(withZero('i'));
  info.setInterfaceName(withZero('n'));
  info.setClusterName(withZero('m'));
  EXPECT_EQ(textOf(info, [](std::ostream&) {}),
            "ServerName=" + withZero('s') + ", User=" + withZero('u') +
                ", AgentCfg=" + withZero('a') + ", CurrentRoute=" + withZero('c') +
                ", RecommendedRoute=" + withZero('r') + ", KeyDir=" + withZero('k') +
                ", LocalIp=" + withZero('l') + ", InterfaceIp=" + withZero('i') +
                ", InterfaceName=" + withZero('n') + ", fptype=1, ClusterName=" + withZero('m'));
  EXPECT_EQ(info.getPasswd(), withZero('p'));
  EXPECT_EQ(info.getClusterName(), withZero('m'));
}

TEST(ServerInfoText, OfAStringThatIsOneZeroByteIsSet) {
  ServerInfo info = plain();
  info.setInterfaceName(std::string(1, '\0'));
  EXPECT_TRUE(info.hasInterfaceName());
  EXPECT_EQ(textOf(info, [](std::ostream&) {}),
            kStrings + ", InterfaceName=" + std::string(1, '\0') + ", fptype=1");
}

}  // namespace
}  // namespace orvane
