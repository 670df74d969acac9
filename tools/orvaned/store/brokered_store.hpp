#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "log.hpp"
#include "store/broker_messages.hpp"
#include "store/store_access.hpp"
#include "store/unfinished_streams.hpp"

namespace orvaned {

// A confined process's end of the socket to its broker. Each call waits for the broker's reply, and
// so for the disk; it fails when the broker has died.
class BrokerClient {
 public:
  explicit BrokerClient(tool::Fd socket) : socket(std::move(socket)) {}

  // Throws Ox_ErrnoException (orvane::kStoreFailed) with the broker's text.
  BrokerReply call(BrokerRequest request);

  // Sends a request whose reply is taken later, by the next call: one at a time.
  void start(BrokerRequest request);

  // That reply. If not `wait`, nothing while it has not come. Throws when the broker has died.
  std::optional<BrokerReply> startedReply(bool wait);

  // Throws std::runtime_error like checkWritable().
  void checkStore();

  // From now on this process's log lines go to the broker, which logs them. A line for which there
  // is no room is dropped; the next line is preceded by the number of dropped ones. The object must
  // live as long as the process.
  void redirectLog();

 private:
  void send(BrokerRequest& request);
  BrokerReply receive();
  bool hasReply() const;
  static void sendLine(const LogLine& line);
  bool trySend(const LogLine& line);

  const tool::Fd socket;
  std::uint32_t serial = 0;
  std::uint32_t startedSerial = 0;
  std::optional<BrokerReply> started;  // a reply that came before it was asked for
  std::uint64_t dropped = 0;
};

class BrokeredDirectory : public StreamDirectory {
 public:
  // `lock` is the broker's descriptor of the locked folder: the stream is in use while either of
  // the two processes lives.
  BrokeredDirectory(BrokerClient& broker, std::string path, BrokerArea area,
                    tool::Fd lock = tool::Fd())
      : StreamDirectory(std::move(path)), broker(broker), area(area), lock(std::move(lock)) {}

  int lockedFile() const override { return lock.get(); }
  tool::Fd append(const std::string& name) override;
  tool::Fd read(const std::string& name) override;
  void truncate(const std::string& name, std::uint64_t size) override;
  void remove(const std::string& name) override;
  void rename(const std::string& from, const std::string& to) override;
  void sync() override;
  std::vector<std::string> names() override;
  bool finishesInBackground() const override { return true; }
  void startFinish(const std::string& finalName, const std::string& line) override;
  std::optional<FinishResult> finishResult(bool wait) override;

 private:
  BrokerReply call(BrokerCall what, const std::string& name, std::uint64_t number = 0,
                   const std::string& other = "");

  BrokerClient& broker;
  const BrokerArea area;
  const tool::Fd lock;
};

class BrokeredAccess : public StoreAccess {
 public:
  BrokeredAccess(BrokerClient& broker, std::string directory)
      : broker(broker), directory(std::move(directory)) {}

  NewStream createStream() override;
  std::unique_ptr<StreamDirectory> outside() override;

 private:
  BrokerClient& broker;
  const std::string directory;
};

class BrokeredUnfinishedStreams : public UnfinishedStreams {
 public:
  explicit BrokeredUnfinishedStreams(BrokerClient& broker) : broker(broker) {}

  std::optional<UnfinishedStream> next() override;

 private:
  BrokerClient& broker;
};

}  // namespace orvaned
