#pragma once

#include <nats/nats.h>

#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <span>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "command_line/nats_options.hpp"

namespace forward {

// The cluster refuses this user for good: its credentials, its permissions, or settings that would
// lose data. Trying again does not help.
class Refused : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The client library. Exists in main() as long as anything uses it.
class NatsLibrary {
 public:
  NatsLibrary();
  ~NatsLibrary();
  NatsLibrary(const NatsLibrary&) = delete;
  NatsLibrary& operator=(const NatsLibrary&) = delete;
};

struct MessageDeleter {
  void operator()(natsMsg* message) const { natsMsg_Destroy(message); }
};
using Message = std::unique_ptr<natsMsg, MessageDeleter>;

std::span<const unsigned char> dataOf(const Message& message);
std::string headerOf(const Message& message, const char* name);  // "": it has none

// A connection to a cluster. When it is lost, the library connects again by itself, for ever, to
// any of its servers. It ends when a server has refused what it sent, such as a message that is
// larger than a limit that was lowered; then it has to be replaced. All functions may be called by
// several threads at the same time.
class Connection {
 public:
  // Throws Refused if the credentials or the options are wrong, and std::runtime_error if no server
  // can be reached. Inboxes begin with _INBOX.orvane.`name`, so that a user can be permitted its
  // own ones only.
  Connection(const tool::NatsOptions& options, const std::string& name);
  ~Connection();
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  natsConnection* get() const { return connection.get(); }
  bool isConnected() const;
  bool hasEnded() const;
  std::uint64_t payloadLimit() const;

  using Headers = std::vector<std::pair<std::string, std::string>>;

  // Sends a request and waits for the answer, at most 5 seconds, whatever the system's clock does.
  // Returns nothing if there is none; `status` has the reason then. Throws Refused if the server
  // has refused this user.
  Message request(const std::string& subject, const Headers& headers,
                  std::span<const unsigned char> data, natsStatus& status) const;

  // Ends the connection, so that a request of another thread returns at once.
  void close() const;

  // Throws Refused if the server has refused this user since the connection was made.
  void requirePermission() const;

 private:
  void receiveAnswers();
  std::string nextInbox() const;
  Message await(const std::string& inbox, natsStatus& status) const;

  static void onAnswer(natsConnection* connection, natsSubscription* subscription, natsMsg* message,
                       void* self);
  static void onNoMoreAnswers(void* self);
  static void onError(natsConnection* connection, natsSubscription* subscription, natsStatus error,
                      void* self);
  static void onDisconnected(natsConnection* connection, void* self);
  static void onClosed(natsConnection* connection, void* self);

  struct ConnectionDeleter {
    void operator()(natsConnection* ended) const { natsConnection_Destroy(ended); }
  };
  struct SubscriptionDeleter {
    void operator()(natsSubscription* ended) const { natsSubscription_Destroy(ended); }
  };

  mutable std::mutex mutex;
  mutable std::condition_variable changed;
  std::string refusal;  // "": none
  // What the library's threads still call.
  bool isClosed = false;
  bool hasAllAnswers = true;
  mutable std::map<std::string, Message> answers;  // by the inboxes that are waited for
  mutable std::uint64_t requests = 0;
  std::string inboxes;  // what all of them begin with
  std::unique_ptr<natsConnection, ConnectionDeleter> connection;
  std::unique_ptr<natsSubscription, SubscriptionDeleter> subscription;
};

}  // namespace forward
