#include "orvane/server_info.hpp"

#include <ostream>
#include <tuple>

namespace orvane {

ServerInfo::ServerInfo(const std::string& serverName, const std::string& user,
                       const std::string& passwd, const std::string& agentCfg,
                       const std::string& currentRoutingTable,
                       const std::string& recommendRoutingTable, const std::string& keyDir)
    : ServerName(serverName),
      User(user),
      Passwd(passwd),
      AgentCfg(agentCfg),
      CurrentRoutingTable(currentRoutingTable),
      RecommendRoutingTable(recommendRoutingTable),
      KeyDir(keyDir) {}
ServerInfo::~ServerInfo() = default;

ServerInfo& ServerInfo::operator=(const ServerInfo& other) {
  return *this = ServerInfo(other);
}

const std::string& ServerInfo::getServerName() const {
  return ServerName;
}
const std::string& ServerInfo::getUser() const {
  return User;
}
const std::string& ServerInfo::getPasswd() const {
  return Passwd;
}
const std::string& ServerInfo::getAgentCfg() const {
  return AgentCfg;
}
const std::string& ServerInfo::getCurrentRoutingTable() const {
  return CurrentRoutingTable;
}
const std::string& ServerInfo::getRecommendRoutingTable() const {
  return RecommendRoutingTable;
}
const std::string& ServerInfo::getKeyDir() const {
  return KeyDir;
}

unsigned int ServerInfo::getFlags() const {
  return Flags;
}
void ServerInfo::setFlags(unsigned int flags) {
  Flags = flags;
}
bool ServerInfo::hasFlags() const {
  return Flags != kNoFlags;
}

int ServerInfo::getReconnectTimeout() const {
  return ReconnectTimeout;
}
void ServerInfo::setReconnectTimeout(int timeout) {
  ReconnectTimeout = timeout;
}
bool ServerInfo::hasReconnectTimeout() const {
  return ReconnectTimeout != kNoReconnectTimeout;
}

int ServerInfo::getBandwidthLimit() const {
  return BandwidthLimit;
}
void ServerInfo::setBandwidthLimit(int limit) {
  BandwidthLimit = limit;
}
bool ServerInfo::hasBandwidthLimit() const {
  return BandwidthLimit != kNoBandwidthLimit;
}

const std::string& ServerInfo::getLocalIp() const {
  return LocalIp;
}
void ServerInfo::setLocalIp(const std::string& ip) {
  LocalIp = ip;
}
bool ServerInfo::hasLocalIp() const {
  return !LocalIp.empty();
}

const std::string& ServerInfo::getInterfaceIp() const {
  return InterfaceIp;
}
void ServerInfo::setInterfaceIp(const std::string& ip) {
  InterfaceIp = ip;
}
bool ServerInfo::hasInterfaceIp() const {
  return !InterfaceIp.empty();
}

const std::string& ServerInfo::getInterfaceName() const {
  return InterfaceName;
}
void ServerInfo::setInterfaceName(const std::string& name) {
  InterfaceName = name;
}
bool ServerInfo::hasInterfaceName() const {
  return !InterfaceName.empty();
}

unsigned char ServerInfo::getFPType() const {
  return FPType;
}
void ServerInfo::setFPType(unsigned char type) {
  FPType = type;
}
bool ServerInfo::hasFPType() const {
  return FPType != kNoFPType;
}
void ServerInfo::setLastFPType(unsigned char type) {
  LastFPType = type;
}

unsigned int ServerInfo::getClusterMode() const {
  return ClusterMode;
}
void ServerInfo::setClusterMode(unsigned int mode) {
  ClusterMode = mode;
}
bool ServerInfo::hasClusterMode() const {
  return ClusterMode != kNoClusterMode;
}

const std::string& ServerInfo::getClusterName() const {
  return ClusterName;
}
void ServerInfo::setClusterName(const std::string& name) {
  ClusterName = name;
}
bool ServerInfo::hasClusterName() const {
  return !ClusterName.empty();
}

bool ServerInfo::reuseMD5ForSHA256() const {
  constexpr std::uint8_t kSha256 = 3;
  if (LastFPType == kSha256) {
    return false;
  }
  return FPType == kSha256;
}

namespace {

// Writes lower-case hexadecimal digits. The stream's flags are restored even if writing throws.
void writeHex(std::ostream& stream, unsigned int number) {
  struct Restore {
    std::ostream& stream;
    std::ios_base::fmtflags flags;
    ~Restore() { stream.flags(flags); }
  } const restore{stream, stream.flags()};
  stream.flags(std::ios_base::hex);
  stream << number;
}

}  // namespace

std::ostream& operator<<(std::ostream& stream, const ServerInfo& info) {
  stream << "ServerName=" << info.getServerName() << ", User=" << info.getUser()
         << ", AgentCfg=" << info.getAgentCfg()
         << ", CurrentRoute=" << info.getCurrentRoutingTable()
         << ", RecommendedRoute=" << info.getRecommendRoutingTable()
         << ", KeyDir=" << info.getKeyDir();
  if (info.hasFlags()) {
    stream << ", Flags=0x";
    writeHex(stream, info.getFlags());
  }
  if (info.hasReconnectTimeout()) {
    stream << ", ReconnectTimeout=" << info.getReconnectTimeout();
  }
  if (info.hasBandwidthLimit()) {
    stream << ", BandwidthLimit=" << info.getBandwidthLimit();
  }
  if (info.hasLocalIp()) {
    stream << ", LocalIp=" << info.getLocalIp();
  }
  if (info.hasInterfaceIp()) {
    stream << ", InterfaceIp=" << info.getInterfaceIp();
  }
  if (info.hasInterfaceName()) {
    stream << ", InterfaceName=" << info.getInterfaceName();
  }
  // Unlike the others, this key is in lower case, because programs that read logs rely on it.
  if (info.hasFPType()) {
    stream << ", fptype=" << static_cast<unsigned int>(info.getFPType());
  }
  if (info.hasClusterMode()) {
    stream << ", ClusterMode=" << info.getClusterMode();
  }
  if (info.hasClusterName()) {
    stream << ", ClusterName=" << info.getClusterName();
  }
  return stream;
}

bool operator==(const ServerInfo& a, const ServerInfo& b) {
  const auto fields = [](const ServerInfo& info) {
    return std::tie(info.ServerName, info.User, info.Passwd, info.AgentCfg,
                    info.CurrentRoutingTable, info.RecommendRoutingTable, info.KeyDir, info.Flags,
                    info.ReconnectTimeout, info.BandwidthLimit, info.LocalIp, info.InterfaceIp,
                    info.InterfaceName, info.FPType, info.LastFPType, info.ClusterMode,
                    info.ClusterName);
  };
  return fields(a) == fields(b);
}

bool operator!=(const ServerInfo& a, const ServerInfo& b) {
  return !(a == b);
}

}  // namespace orvane
