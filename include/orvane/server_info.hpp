#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>

#include "orvane/export.hpp"

namespace orvane {

// The settings of one connection of a server: seven strings, such as the host and the user, and
// optional settings.
//   ServerInfo info("host", "user", password, "agent.cfg", "routes", "routes.new", "/keys");
//   info.setBandwidthLimit(1000);
//   log << info;  // the password is never written
//
// The class only keeps the settings: it neither checks nor interprets them, and the library does
// not use them. So the program that sets a number decides on its unit. An optional setting counts
// as set while it differs from its sentinel (the constants below); set it to the sentinel to unset
// it. It is a value: copies are independent. Several threads may read one object at a time.
class ORVANE_API ServerInfo {
 public:
  // The sentinels. A string counts as set while it is not empty.
  static constexpr std::uint32_t kNoFlags = 0;
  static constexpr std::int32_t kNoReconnectTimeout = -1;
  static constexpr std::int32_t kNoBandwidthLimit = 0;
  static constexpr std::uint8_t kNoFPType = 255;
  static constexpr std::uint32_t kNoClusterMode = 0xFFFFFFFF;

  // The seven strings stay as they are until another ServerInfo is assigned; each may be empty.
  ServerInfo(const std::string& serverName, const std::string& user, const std::string& passwd,
             const std::string& agentCfg, const std::string& currentRoutingTable,
             const std::string& recommendRoutingTable, const std::string& keyDir);
  ServerInfo(const ServerInfo&) = default;
  ServerInfo(ServerInfo&&) noexcept = default;
  ServerInfo& operator=(const ServerInfo& other);  // changes nothing when it throws
  ServerInfo& operator=(ServerInfo&&) noexcept = default;
  ~ServerInfo();

  const std::string& getServerName() const;  // the server to connect to
  const std::string& getUser() const;        // the user to connect as
  const std::string& getPasswd() const;      // that user's password, never printed
  const std::string& getAgentCfg() const;    // the agent's configuration
  const std::string& getCurrentRoutingTable() const;
  const std::string& getRecommendRoutingTable() const;
  const std::string& getKeyDir() const;  // the folder of the keys

  // A bit mask, printed in hexadecimal.
  unsigned int getFlags() const;
  void setFlags(unsigned int flags);
  bool hasFlags() const;

  // 0 and any negative number but -1 count as set.
  int getReconnectTimeout() const;
  void setReconnectTimeout(int timeout);
  bool hasReconnectTimeout() const;

  // A negative limit counts as set.
  int getBandwidthLimit() const;
  void setBandwidthLimit(int limit);
  bool hasBandwidthLimit() const;

  // The local end of the connection: its address, and the address and name of the network
  // interface.
  const std::string& getLocalIp() const;
  void setLocalIp(const std::string& ip);
  bool hasLocalIp() const;

  const std::string& getInterfaceIp() const;
  void setInterfaceIp(const std::string& ip);
  bool hasInterfaceIp() const;

  const std::string& getInterfaceName() const;
  void setInterfaceName(const std::string& name);
  bool hasInterfaceName() const;

  // The type of the connection's fingerprint. A new record has the current type 1, which counts as
  // set, and the last type 3. The last type is neither returned nor printed: only
  // reuseMD5ForSHA256() uses it.
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

  // True if the current fingerprint type is 3 (SHA-256) and the last type is not.
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

// Writes "ServerName=..., User=..., AgentCfg=..., CurrentRoute=..., RecommendedRoute=...,
// KeyDir=..." and each optional setting that is set, but never the password. The stream's flags are
// the same afterwards.
ORVANE_API std::ostream& operator<<(std::ostream& stream, const ServerInfo& info);

// Two records are equal if all their settings are, also the password and the last fingerprint type.
ORVANE_API bool operator==(const ServerInfo& a, const ServerInfo& b);
ORVANE_API bool operator!=(const ServerInfo& a, const ServerInfo& b);

}  // namespace orvane
