#include "connection.hpp"

#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <system_error>

#include "subjects.hpp"

namespace forward {
namespace {

constexpr std::int64_t kConnectMilliseconds = 3000;
constexpr std::int64_t kRequestMilliseconds = 5000;
// A server that was stopped, or lost by the network, is noticed after two of these.
constexpr std::int64_t kPingMilliseconds = 2000;
constexpr std::int64_t kReconnectMilliseconds = 250;
constexpr std::int64_t kEndMilliseconds = 5000;
constexpr char kCredentialsOfNats[] = "-----BEGIN NATS USER JWT-----";

struct OptionsDeleter {
  void operator()(natsOptions* options) const { natsOptions_Destroy(options); }
};
using Options = std::unique_ptr<natsOptions, OptionsDeleter>;

void require(natsStatus status, const std::string& what) {
  if (status != NATS_OK) {
    const char* const detail = nats_GetLastError(nullptr);
    const std::string more = detail != nullptr ? std::string(", ") + detail : "";
    throw Refused(what + ": " + natsStatus_GetText(status) + more);
  }
}

// Throws Refused if anybody else may read a file with a secret.
void requirePrivate(const std::string& path) {
  struct stat status = {};
  if (stat(path.c_str(), &status) != 0) {
    throw Refused(std::generic_category().message(errno) + ": cannot read " + path);
  }
  if ((status.st_mode & 077) != 0) {
    throw Refused("others may read " + path + ", which has a secret: chmod 600 " + path);
  }
}

void setCredentials(natsOptions* options, const std::string& path) {
  requirePrivate(path);
  std::ifstream file(path);
  std::string line;
  if (!std::getline(file, line)) {
    throw Refused("cannot read credentials in " + path);
  }
  if (line.starts_with(kCredentialsOfNats)) {
    require(natsOptions_SetUserCredentialsFromFiles(options, path.c_str(), nullptr), path);
    return;
  }
  const std::size_t colon = line.find(':');
  if (colon == std::string::npos) {
    throw Refused("no credentials are in " + path + ": its first line must be USER:PASSWORD");
  }
  require(natsOptions_SetUserInfo(options, line.substr(0, colon).c_str(),
                                  line.substr(colon + 1).c_str()),
          path);
}

void setEncryption(natsOptions* options, const tool::NatsOptions& asked) {
  if (!asked.authority.empty()) {
    require(natsOptions_SetSecure(options, true), "TLS");
    require(natsOptions_LoadCATrustedCertificates(options, asked.authority.c_str()),
            asked.authority);
  }
  if (!asked.certificate.empty()) {
    requirePrivate(asked.key);
    require(natsOptions_SetSecure(options, true), "TLS");
    require(
        natsOptions_LoadCertificatesChain(options, asked.certificate.c_str(), asked.key.c_str()),
        asked.certificate);
  }
}

void setServers(natsOptions* options, const std::string& text) {
  const std::vector<std::string> servers = tool::serversIn(text);
  std::vector<const char*> urls;
  for (const std::string& server : servers) {
    urls.push_back(server.c_str());
  }
  require(natsOptions_SetServers(options, urls.data(), static_cast<int>(urls.size())), text);
}

// Requests fail at once when the connection is lost, and nothing is kept to be sent later: what was
// not acknowledged is sent again by its owner.
void setPatience(natsOptions* options) {
  natsOptions_SetTimeout(options, kConnectMilliseconds);
  natsOptions_SetPingInterval(options, kPingMilliseconds);
  natsOptions_SetMaxPingsOut(options, 1);
  natsOptions_SetMaxReconnect(options, -1);
  natsOptions_SetReconnectWait(options, kReconnectMilliseconds);
  natsOptions_SetReconnectJitter(options, kReconnectMilliseconds, kReconnectMilliseconds);
  natsOptions_SetFailRequestsOnDisconnect(options, true);
  natsOptions_SetSendAsap(options, true);
  natsOptions_SetWriteDeadline(options, kRequestMilliseconds);
}

}  // namespace

NatsLibrary::NatsLibrary() {
  nats_Open(-1);
}

NatsLibrary::~NatsLibrary() {
  nats_CloseAndWait(kEndMilliseconds);
}

std::span<const unsigned char> dataOf(const Message& message) {
  return {reinterpret_cast<const unsigned char*>(natsMsg_GetData(message.get())),
          static_cast<std::size_t>(natsMsg_GetDataLength(message.get()))};
}

std::string headerOf(const Message& message, const char* name) {
  const char* value = nullptr;
  return natsMsgHeader_Get(message.get(), name, &value) == NATS_OK ? value : "";
}

Connection::Connection(const tool::NatsOptions& options, const std::string& name)
    : inboxes("_INBOX.orvane." + tokenOf(name)) {
  natsOptions* made = nullptr;
  require(natsOptions_Create(&made), "options");
  const Options all(made);
  setServers(made, options.servers);
  if (!options.credentials.empty()) {
    setCredentials(made, options.credentials);
  }
  setEncryption(made, options);
  setPatience(made);
  natsOptions_SetName(made, ("orvane " + name).c_str());
  natsOptions_SetErrorHandler(made, onError, this);
  natsOptions_SetDisconnectedCB(made, onDisconnected, this);
  natsOptions_SetClosedCB(made, onClosed, this);
  require(natsOptions_SetCustomInboxPrefix(made, inboxes.c_str()), name);
  natsConnection* opened = nullptr;
  const natsStatus status = natsConnection_Connect(&opened, made);
  connection.reset(opened);
  if (status == NATS_CONNECTION_AUTH_FAILED) {
    throw Refused("the servers refuse the credentials");
  }
  if (status == NATS_SSL_ERROR || status == NATS_SECURE_CONNECTION_REQUIRED ||
      status == NATS_SECURE_CONNECTION_WANTED) {
    require(status, "TLS with " + options.servers);
  }
  if (status != NATS_OK) {
    throw std::runtime_error("no server of " + options.servers +
                             " can be reached: " + natsStatus_GetText(status));
  }
  receiveAnswers();
}

// One subscription gets the answers to all requests: each has an inbox of its own.
void Connection::receiveAnswers() {
  natsInbox* unique = nullptr;
  natsSubscription* made = nullptr;
  natsStatus status = natsInbox_Create(&unique);
  if (status == NATS_OK) {
    inboxes += std::strrchr(unique, '.');
    status =
        natsConnection_Subscribe(&made, connection.get(), (inboxes + ".*").c_str(), onAnswer, this);
  }
  natsInbox_Destroy(unique);
  subscription.reset(made);
  if (status == NATS_OK) {
    hasAllAnswers = false;
    status = natsSubscription_SetOnCompleteCB(made, onNoMoreAnswers, this);
  }
  if (status != NATS_OK) {
    throw std::runtime_error(std::string("no answers can be received: ") +
                             natsStatus_GetText(status));
  }
}

// The library's threads may still call this object until they have reported the end.
Connection::~Connection() {
  close();
  std::unique_lock lock(mutex);
  changed.wait_for(lock, std::chrono::milliseconds(kEndMilliseconds),
                   [this] { return isClosed && hasAllAnswers; });
}

bool Connection::isConnected() const {
  return natsConnection_Status(connection.get()) == NATS_CONN_STATUS_CONNECTED;
}

bool Connection::hasEnded() const {
  return natsConnection_IsClosed(connection.get());
}

std::uint64_t Connection::payloadLimit() const {
  return static_cast<std::uint64_t>(natsConnection_GetMaxPayload(connection.get()));
}

void Connection::close() const {
  natsConnection_Close(connection.get());
}

// Runs in a thread of the library.
void Connection::onError(natsConnection* connection, natsSubscription* /*subscription*/,
                         natsStatus error, void* self) {
  if (error != NATS_NOT_PERMITTED && error != NATS_CONNECTION_AUTH_FAILED) {
    return;
  }
  const char* text = nullptr;
  natsConnection_GetLastError(connection, &text);
  auto* const mine = static_cast<Connection*>(self);
  const std::lock_guard lock(mine->mutex);
  mine->refusal = std::string("the servers refuse what this user does: ") +
                  (text != nullptr ? text : natsStatus_GetText(error));
}

void Connection::onNoMoreAnswers(void* self) {
  auto* const mine = static_cast<Connection*>(self);
  const std::lock_guard lock(mine->mutex);
  mine->hasAllAnswers = true;
  mine->changed.notify_all();
}

void Connection::onDisconnected(natsConnection* /*connection*/, void* self) {
  auto* const mine = static_cast<Connection*>(self);
  const std::lock_guard lock(mine->mutex);
  mine->changed.notify_all();
}

void Connection::onClosed(natsConnection* /*connection*/, void* self) {
  auto* const mine = static_cast<Connection*>(self);
  const std::lock_guard lock(mine->mutex);
  mine->isClosed = true;
  mine->changed.notify_all();
}

// The library gives up when the credentials were refused twice in a row.
void Connection::requirePermission() const {
  const std::lock_guard lock(mutex);
  if (!refusal.empty()) {
    throw Refused(refusal);
  }
  const char* text = nullptr;
  if (hasEnded() &&
      natsConnection_GetLastError(connection.get(), &text) == NATS_CONNECTION_AUTH_FAILED) {
    throw Refused("the servers refuse the credentials");
  }
}

Message Connection::request(const std::string& subject, const Headers& headers,
                            std::span<const unsigned char> data, natsStatus& status) const {
  const std::string inbox = nextInbox();
  natsMsg* made = nullptr;
  status =
      natsMsg_Create(&made, subject.c_str(), inbox.c_str(),
                     reinterpret_cast<const char*>(data.data()), static_cast<int>(data.size()));
  const Message message(made);
  for (const auto& [name, value] : headers) {
    if (status == NATS_OK) {
      status = natsMsgHeader_Set(made, name.c_str(), value.c_str());
    }
  }
  if (status == NATS_OK) {
    status = isConnected() ? natsConnection_PublishMsg(connection.get(), made)
                           : NATS_CONNECTION_DISCONNECTED;
  }
  Message answer = await(inbox, status);
  if (status != NATS_OK) {
    requirePermission();
  }
  return answer;
}

std::string Connection::nextInbox() const {
  const std::lock_guard lock(mutex);
  std::string inbox = inboxes + "." + std::to_string(++requests);
  answers[inbox] = nullptr;
  return inbox;
}

// The client library would wait by the system's clock, which may be set back by an hour.
Message Connection::await(const std::string& inbox, natsStatus& status) const {
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::milliseconds(kRequestMilliseconds);
  std::unique_lock lock(mutex);
  if (status == NATS_OK) {
    changed.wait_until(lock, deadline, [&] { return answers[inbox] || !isConnected(); });
    status = answers[inbox] || isConnected() ? NATS_TIMEOUT : NATS_CONNECTION_DISCONNECTED;
  }
  Message answer = std::move(answers[inbox]);
  answers.erase(inbox);
  if (!answer) {
    return nullptr;
  }
  status = natsMsg_IsNoResponders(answer.get()) ? NATS_NO_RESPONDERS : NATS_OK;
  return status == NATS_OK ? std::move(answer) : nullptr;
}

// Runs in a thread of the library. What nobody waits for any more is dropped.
void Connection::onAnswer(natsConnection* /*connection*/, natsSubscription* /*subscription*/,
                          natsMsg* message, void* self) {
  Message received(message);
  auto* const mine = static_cast<Connection*>(self);
  const std::lock_guard lock(mine->mutex);
  const auto waiting = mine->answers.find(natsMsg_GetSubject(message));
  if (waiting != mine->answers.end()) {
    waiting->second = std::move(received);
    mine->changed.notify_all();
  }
}

}  // namespace forward
