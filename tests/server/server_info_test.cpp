#include "orvane/server_info.hpp"

#include <gtest/gtest.h>

#include <ios>
#include <limits>
#include <ostream>
#include <sstream>
#include <string>
#include <type_traits>

#include "plain_server_info.hpp"

namespace orvane {
namespace {

using test::plain;

std::string textOf(const ServerInfo& info) {
  std::ostringstream text;
  text << info;
  return text.str();
}

// The text form of a record with one more setting, without the part that every record has.
template <typename Change>
std::string added(Change change) {
  ServerInfo info = plain();
  info.setFPType(255);
  const std::string before = textOf(info);
  change(info);
  const std::string after = textOf(info);
  EXPECT_EQ(after.substr(0, before.size()), before);
  return after.substr(before.size());
}

TEST(ServerInfoTest, NewRecordPrintsItsSevenStringsAndTheFingerprintType) {
  EXPECT_EQ(textOf(plain()),
            "ServerName=s, User=u, AgentCfg=a, CurrentRoute=c, RecommendedRoute=r, KeyDir=k, "
            "fptype=1");
}

TEST(ServerInfoTest, ConstructorKeepsItsStringsInOrder) {
  const ServerInfo info("name", "user", "pass", "cfg", "current", "recommended", "keys");
  EXPECT_EQ(info.getServerName(), "name");
  EXPECT_EQ(info.getUser(), "user");
  EXPECT_EQ(info.getPasswd(), "pass");
  EXPECT_EQ(info.getAgentCfg(), "cfg");
  EXPECT_EQ(info.getCurrentRoutingTable(), "current");
  EXPECT_EQ(info.getRecommendRoutingTable(), "recommended");
  EXPECT_EQ(info.getKeyDir(), "keys");
}

TEST(ServerInfoTest, NewRecordHoldsTheSentinels) {
  const ServerInfo info = plain();
  EXPECT_EQ(info.getFlags(), 0U);
  EXPECT_EQ(info.getReconnectTimeout(), -1);
  EXPECT_EQ(info.getBandwidthLimit(), 0);
  EXPECT_EQ(info.getLocalIp(), "");
  EXPECT_EQ(info.getInterfaceIp(), "");
  EXPECT_EQ(info.getInterfaceName(), "");
  EXPECT_EQ(info.getFPType(), 1);
  EXPECT_EQ(info.getClusterMode(), 4294967295U);
  EXPECT_EQ(info.getClusterName(), "");
}

TEST(ServerInfoTest, NewRecordHasNothingSetButTheFingerprintType) {
  const ServerInfo info = plain();
  EXPECT_FALSE(info.hasFlags());
  EXPECT_FALSE(info.hasReconnectTimeout());
  EXPECT_FALSE(info.hasBandwidthLimit());
  EXPECT_FALSE(info.hasLocalIp());
  EXPECT_FALSE(info.hasInterfaceIp());
  EXPECT_FALSE(info.hasInterfaceName());
  EXPECT_TRUE(info.hasFPType());
  EXPECT_FALSE(info.hasClusterMode());
  EXPECT_FALSE(info.hasClusterName());
}

TEST(ServerInfoTest, SettersStoreAnyValueAndMakeItSet) {
  ServerInfo info = plain();
  info.setFlags(4294967295U);
  info.setReconnectTimeout(std::numeric_limits<int>::min());
  info.setBandwidthLimit(std::numeric_limits<int>::max());
  info.setLocalIp("not an address");
  info.setInterfaceIp("i");
  info.setInterfaceName("n");
  info.setFPType(254);
  info.setClusterMode(4294967294U);
  info.setClusterName("c");
  EXPECT_EQ(info.getFlags(), 4294967295U);
  EXPECT_EQ(info.getReconnectTimeout(), std::numeric_limits<int>::min());
  EXPECT_EQ(info.getBandwidthLimit(), std::numeric_limits<int>::max());
  EXPECT_EQ(info.getLocalIp(), "not an address");
  EXPECT_EQ(info.getInterfaceIp(), "i");
  EXPECT_EQ(info.getInterfaceName(), "n");
  EXPECT_EQ(info.getFPType(), 254);
  EXPECT_EQ(info.getClusterMode(), 4294967294U);
  EXPECT_EQ(info.getClusterName(), "c");
  EXPECT_TRUE(info.hasFlags() && info.hasReconnectTimeout() && info.hasBandwidthLimit());
  EXPECT_TRUE(info.hasLocalIp() && info.hasInterfaceIp() && info.hasInterfaceName());
  EXPECT_TRUE(info.hasFPType() && info.hasClusterMode() && info.hasClusterName());
}

TEST(ServerInfoTest, SettingTheSentinelUnsetsAValue) {
  ServerInfo info = plain();
  const std::string unset =
      "ServerName=s, User=u, AgentCfg=a, CurrentRoute=c, RecommendedRoute=r, "
      "KeyDir=k";
  info.setFlags(1);
  info.setReconnectTimeout(1);
  info.setBandwidthLimit(1);
  info.setLocalIp("x");
  info.setInterfaceIp("x");
  info.setInterfaceName("x");
  info.setClusterMode(1);
  info.setClusterName("x");
  info.setFlags(0);
  info.setReconnectTimeout(-1);
  info.setBandwidthLimit(0);
  info.setLocalIp("");
  info.setInterfaceIp("");
  info.setInterfaceName("");
  info.setFPType(255);
  info.setClusterMode(4294967295U);
  info.setClusterName("");
  EXPECT_FALSE(info.hasFPType());
  EXPECT_EQ(textOf(info), unset);
}

TEST(ServerInfoTest, FlagsPrintAsPlainLowerCaseHex) {
  EXPECT_EQ(added([](ServerInfo& info) { info.setFlags(255); }), ", Flags=0xff");
  EXPECT_EQ(added([](ServerInfo& info) { info.setFlags(0xABCDEF01); }), ", Flags=0xabcdef01");
}

TEST(ServerInfoTest, FlagsLeaveTheStreamAsItWas) {
  ServerInfo info = plain();
  info.setFlags(255);
  std::ostringstream text;
  text << info << " " << 255;
  EXPECT_NE(text.str().find(", Flags=0xff"), std::string::npos);
  EXPECT_EQ(text.str().substr(text.str().size() - 4), " 255");

  for (const std::ios_base::fmtflags flags :
       {std::ios_base::oct, std::ios_base::hex | std::ios_base::uppercase | std::ios_base::showbase,
        std::ios_base::dec | std::ios_base::showpos | std::ios_base::left}) {
    std::ostringstream other;
    other.flags(flags);
    other << info;
    EXPECT_EQ(other.flags(), flags);
    EXPECT_NE(other.str().find(", Flags=0xff, fptype="), std::string::npos) << other.str();
  }
}

// A stream buffer without room: writing to it fails, and the stream has been told to throw then.
struct FullBuffer : std::streambuf {
  explicit FullBuffer(int room) : left(room) {}
  int overflow(int character) override { return left-- > 0 ? character : EOF; }
  int left;
};

TEST(ServerInfoTest, StreamThatThrowsInTheMiddleGetsItsFlagsBack) {
  ServerInfo info = plain();
  info.setFlags(255);
  const int beforeTheNumber = static_cast<int>(textOf(info).find("ff"));
  FullBuffer buffer(beforeTheNumber);
  std::ostream stream(&buffer);
  stream.exceptions(std::ios_base::badbit | std::ios_base::failbit);
  EXPECT_THROW(stream << info, std::ios_base::failure);
  EXPECT_EQ(stream.flags() & std::ios_base::basefield, std::ios_base::dec);
}

TEST(ServerInfoTest, OtherNumbersFollowTheStreamsOwnBase) {
  ServerInfo info = plain();
  info.setFlags(1);
  info.setClusterMode(255);
  std::ostringstream text;
  text << std::hex << info;
  EXPECT_NE(text.str().find(", ClusterMode=ff"), std::string::npos) << text.str();
}

TEST(ServerInfoTest, ReconnectTimeoutZeroAndNegativeOnesCountAsSet) {
  EXPECT_EQ(added([](ServerInfo& info) { info.setReconnectTimeout(0); }), ", ReconnectTimeout=0");
  EXPECT_EQ(added([](ServerInfo& info) { info.setReconnectTimeout(-2); }), ", ReconnectTimeout=-2");
  EXPECT_EQ(added([](ServerInfo& info) { info.setReconnectTimeout(-1); }), "");
}

TEST(ServerInfoTest, NegativeBandwidthLimitCountsAsSet) {
  EXPECT_EQ(added([](ServerInfo& info) { info.setBandwidthLimit(-5); }), ", BandwidthLimit=-5");
}

TEST(ServerInfoTest, FingerprintTypePrintsAsANumber) {
  EXPECT_EQ(added([](ServerInfo& info) { info.setFPType(65); }), ", fptype=65");
  EXPECT_EQ(added([](ServerInfo& info) { info.setFPType(0); }), ", fptype=0");
  EXPECT_EQ(added([](ServerInfo& info) { info.setFPType(255); }), "");
}

TEST(ServerInfoTest, LastFingerprintTypeIsNeverPrinted) {
  EXPECT_EQ(added([](ServerInfo& info) { info.setLastFPType(7); }), "");
}

TEST(ServerInfoTest, ClusterModeZeroCountsAsSet) {
  EXPECT_EQ(added([](ServerInfo& info) { info.setClusterMode(0); }), ", ClusterMode=0");
}

TEST(ServerInfoTest, EverySettingPrintsInOrder) {
  EXPECT_EQ(added([](ServerInfo& info) {
              info.setClusterName("cluster");
              info.setClusterMode(4294967294U);
              info.setLastFPType(1);
              info.setFPType(3);
              info.setInterfaceName("eth0");
              info.setInterfaceIp("10.0.0.2");
              info.setLocalIp("10.0.0.1");
              info.setBandwidthLimit(1000);
              info.setReconnectTimeout(30);
              info.setFlags(16);
            }),
            ", Flags=0x10, ReconnectTimeout=30, BandwidthLimit=1000, LocalIp=10.0.0.1, "
            "InterfaceIp=10.0.0.2, InterfaceName=eth0, fptype=3, ClusterMode=4294967294, "
            "ClusterName=cluster");
}

TEST(ServerInfoTest, PasswordIsInNoTextForm) {
  const std::string secret = "qX7!secret";
  ServerInfo info("s", "u", secret, "a", "c", "r", "k");
  EXPECT_EQ(textOf(info).find(secret), std::string::npos);
  info.setFlags(0xFFFFFFFF);
  info.setReconnectTimeout(1);
  info.setBandwidthLimit(1);
  info.setLocalIp("x");
  info.setInterfaceIp("x");
  info.setInterfaceName("x");
  info.setFPType(3);
  info.setLastFPType(1);
  info.setClusterMode(1);
  info.setClusterName("x");
  EXPECT_EQ(textOf(info).find(secret), std::string::npos);
  EXPECT_EQ(textOf(info).find("asswd"), std::string::npos);
}

TEST(ServerInfoTest, ReuseNeedsTypeThreeNowAndAnotherBefore) {
  ServerInfo info = plain();
  EXPECT_FALSE(info.reuseMD5ForSHA256());
  info.setFPType(3);
  EXPECT_FALSE(info.reuseMD5ForSHA256());  // the last type starts at 3
  info.setLastFPType(1);
  EXPECT_TRUE(info.reuseMD5ForSHA256());
  info.setFPType(2);
  EXPECT_FALSE(info.reuseMD5ForSHA256());
  info.setFPType(3);
  info.setLastFPType(3);
  EXPECT_FALSE(info.reuseMD5ForSHA256());
}

TEST(ServerInfoTest, FingerprintTypesAreIndependent) {
  ServerInfo info = plain();
  info.setLastFPType(9);
  EXPECT_EQ(info.getFPType(), 1);
  info.setFPType(3);
  EXPECT_TRUE(info.reuseMD5ForSHA256());  // the last type is still 9
}

TEST(ServerInfoTest, IsAValue) {
  ServerInfo a = plain();
  ServerInfo b = a;
  EXPECT_EQ(a, b);
  b.setLastFPType(1);
  EXPECT_NE(a, b);
  a = b;
  EXPECT_EQ(a, b);
  EXPECT_FALSE(std::is_default_constructible_v<ServerInfo>);
  EXPECT_FALSE(std::is_polymorphic_v<ServerInfo>);
}

}  // namespace
}  // namespace orvane
