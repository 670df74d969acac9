#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "log.hpp"
#include "store/broker_messages.hpp"
#include "store/recovery.hpp"
#include "store/store_access.hpp"

namespace orvaned {

// A confined process's end of the socket to its broker. Each call waits for the broker's reply, and
// so for the disk; when the broker has died it fails.
class BrokerClient {
 public:
  explicit BrokerClient(tool::Fd socketToBroker) : socket(std::move(socketToBroker)) {}

  // Throws Ox_ErrnoException (orvane::kStoreFailed) with the broker's text.
  BrokerReply call(BrokerRequest request);

  // Throws std::runtime_error as checkWritable() does.
  void checkStore();

  // From now on this process's log lines go to the broker, which writes them for it. A line for
  // which there is no room is dropped, and counted by the next one that goes. The object must live
  // as long as the process.
  void takeLog();

 private:
  static void sendLine(const LogLine& line);
  bool trySend(const LogLine& line);

  const tool::Fd socket;
  std::uint32_t serial = 0;
  std::uint64_t dropped = 0;
};

class BrokeredDirectory : public StreamDirectory {
 public:
  BrokeredDirectory(BrokerClient& brokerClient, std::string path, BrokerArea folderArea)
      : StreamDirectory(std::move(path)), broker(brokerClient), area(folderArea) {}

  tool::Fd append(const std::string& name) override;
  tool::Fd read(const std::string& name) override;
  void truncate(const std::string& name, std::uint64_t size) override;
  void remove(const std::string& name) override;
  void rename(const std::string& from, const std::string& to) override;
  void sync() override;
  std::vector<std::string> names() override;

 private:
  BrokerReply call(BrokerCall what, const std::string& name, std::uint64_t number = 0,
                   const std::string& other = "");

  BrokerClient& broker;
  const BrokerArea area;
};

class BrokeredAccess : public StoreAccess {
 public:
  BrokeredAccess(BrokerClient& brokerClient, std::string storeDirectory)
      : broker(brokerClient), directory(std::move(storeDirectory)) {}

  NewStream createStream() override;
  std::unique_ptr<StreamDirectory> outside() override;

 private:
  BrokerClient& broker;
  const std::string directory;
};

class BrokeredUnfinishedStreams : public UnfinishedStreams {
 public:
  explicit BrokeredUnfinishedStreams(BrokerClient& brokerClient) : broker(brokerClient) {}

  std::optional<UnfinishedStream> next() override;

 private:
  BrokerClient& broker;
};

}  // namespace orvaned
