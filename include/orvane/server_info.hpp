#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>

#include "orvane/export.hpp"

namespace orvane {

// What a server knows of one connection: where to connect, as whom, and optional settings.
//   ServerInfo info("host", "user", password, "agent.cfg", "routes", "routes.new", "/keys");
//   info.setBandwidthLimit(1000);
//   log << info;  // the password is never written
//
// A value. An optional setting is set when it differs from its sentinel (the constants below), so
// setting it to the sentinel unsets it. Nothing is validated. Concurrent reads are safe.
class ORVANE_API ServerInfo {
 public:
  static constexpr std::uint32_t kNoFlags = 0;
  static constexpr std::int32_t kNoReconnectTimeout = -1;
  static constexpr std::int32_t kNoBandwidthLimit = 0;
  static constexpr std::uint8_t kNoFPType = 255;
  static constexpr std::uint32_t kNoClusterMode = 0xFFFFFFFF;
  // A string is set when it is not empty.

  ServerInfo(const std::string& serverName, const std::string& user, const std::string& passwd,
             const std::string& agentCfg, const std::string& currentRoutingTable,
             const std::string& recommendRoutingTable, const std::string& keyDir);
  ServerInfo(const ServerInfo&) = default;
  ServerInfo(ServerInfo&&) noexcept = default;
  ServerInfo& operator=(const ServerInfo& other);  // all or nothing when memory runs out
  ServerInfo& operator=(ServerInfo&&) noexcept = default;
  ~ServerInfo();

  const std::string& getServerName() const;
  const std::string& getUser() const;
  const std::string& getPasswd() const;
  const std::string& getAgentCfg() const;
  const std::string& getCurrentRoutingTable() const;
  const std::string& getRecommendRoutingTable() const;
  const std::string& getKeyDir() const;

  unsigned int getFlags() const;
  void setFlags(unsigned int flags);
  bool hasFlags() const;

  int getReconnectTimeout() const;
  void setReconnectTimeout(int timeout);
  bool hasReconnectTimeout() const;

  int getBandwidthLimit() const;
  void setBandwidthLimit(int limit);
  bool hasBandwidthLimit() const;  // a negative limit counts as set

  const std::string& getLocalIp() const;
  void setLocalIp(const std::string& ip);
  bool hasLocalIp() const;

  const std::string& getInterfaceIp() const;
  void setInterfaceIp(const std::string& ip);
  bool hasInterfaceIp() const;

  const std::string& getInterfaceName() const;
  void setInterfaceName(const std::string& name);
  bool hasInterfaceName() const;

  // The current fingerprint type is set from the start (1); the last one (3) cannot be queried.
  unsigned char getFPType() const;
  void setFPType(unsigned char type);
  bool hasFPType() const;
  void setLastFPType(unsigned char type);

  unsigned int getClusterMode() const;
  void setClusterMode(unsigned int mode);
  bool hasClusterMode() const;

  const std::string& getClusterName() const;
  void setClusterName(const std::string& name);
  bool hasClusterName() const;

  // True when the fingerprint type has just become 3: it is 3 now and was not before.
  bool reuseMD5ForSHA256() const;

  friend ORVANE_API bool operator==(const ServerInfo& a, const ServerInfo& b);

 private:
  std::string ServerName;
  std::string User;
  std::string Passwd;
  std::string AgentCfg;
  std::string CurrentRoutingTable;
  std::string RecommendRoutingTable;
  std::string KeyDir;
  std::uint32_t Flags = kNoFlags;
  std::int32_t ReconnectTimeout = kNoReconnectTimeout;
  std::int32_t BandwidthLimit = kNoBandwidthLimit;
  std::string LocalIp;
  std::string InterfaceIp;
  std::string InterfaceName;
  std::uint8_t FPType = 1;
  std::uint8_t LastFPType = 3;
  std::uint32_t ClusterMode = kNoClusterMode;
  std::string ClusterName;
};

// "ServerName=..., User=..., AgentCfg=..., CurrentRoute=..., RecommendedRoute=..., KeyDir=..." and
// each optional setting that is set; never the password. The stream's flags are as before.
ORVANE_API std::ostream& operator<<(std::ostream& stream, const ServerInfo& info);

ORVANE_API bool operator==(const ServerInfo& a, const ServerInfo& b);
ORVANE_API bool operator!=(const ServerInfo& a, const ServerInfo& b);

}  // namespace orvane
