#include "store/brokered_store.hpp"

#include <poll.h>
#include <sys/socket.h>

#include <cstddef>
#include <orvane/orvane.hpp>
#include <orvane/server_status.hpp>
#include <stdexcept>
#include <utility>

namespace orvaned {
namespace {

constexpr std::size_t kLongestLine = 8192;

// A target of the log is a plain function, so it finds its broker here.
BrokerClient* logBroker = nullptr;

[[noreturn]] void throwBrokerEnded() {
  throw Ox_ErrnoException(orvane::kStoreFailed,
                          "the process that opens this worker's files has ended", "");
}

}  // namespace

BrokerReply BrokerClient::call(BrokerRequest request) {
  send(request);
  for (;;) {
    BrokerReply reply = receive();
    if (reply.serial == startedSerial) {
      started = std::move(reply);
    } else if (reply.serial == request.serial) {
      if (reply.error != 0) {
        throw Ox_ErrnoException(orvane::kStoreFailed, reply.text, "");
      }
      return reply;
    }
  }
}

void BrokerClient::start(BrokerRequest request) {
  send(request);
  started.reset();
  startedSerial = request.serial;
}

std::optional<BrokerReply> BrokerClient::startedReply(bool wait) {
  while (!started && (wait || hasReply())) {
    BrokerReply reply = receive();
    if (reply.serial == startedSerial) {
      started = std::move(reply);
    }
  }
  return std::exchange(started, std::nullopt);
}

void BrokerClient::send(BrokerRequest& request) {
  request.serial = ++serial;
  if (!sendRequest(socket, request)) {
    throwBrokerEnded();
  }
}

BrokerReply BrokerClient::receive() {
  auto reply = receiveReply(socket);
  if (!reply) {
    throwBrokerEnded();
  }
  return std::move(*reply);
}

bool BrokerClient::hasReply() const {
  pollfd reply = {socket.get(), POLLIN, 0};
  return poll(&reply, 1, 0) > 0;
}

void BrokerClient::checkStore() {
  try {
    call({.call = BrokerCall::checkStore, .name = {}, .other = {}});
  } catch (const Ox_ErrnoException& e) {
    throw std::runtime_error(e.message());
  }
}

void BrokerClient::redirectLog() {
  logBroker = this;
  setLogTarget(sendLine);
}

void BrokerClient::sendLine(const LogLine& line) {
  BrokerClient& broker = *logBroker;
  if (broker.dropped > 0 &&
      broker.trySend({ox::Kind::warning, 0, "",
                      "worker::log: " + std::to_string(broker.dropped) +
                          " lines of this worker were dropped: they came too fast"})) {
    broker.dropped = 0;
  }
  broker.dropped += broker.trySend(line) ? 0 : 1;
}

bool BrokerClient::trySend(const LogLine& line) {
  const std::uint64_t number =
      static_cast<std::uint64_t>(line.kind) << 32 | static_cast<std::uint32_t>(line.code);
  return sendRequest(socket,
                     {.call = BrokerCall::log,
                      .number = number,
                      .name = {},
                      .other = line.text.substr(0, kLongestLine)},
                     MSG_DONTWAIT);
}

BrokerReply BrokeredDirectory::call(BrokerCall what, const std::string& name, std::uint64_t number,
                                    const std::string& other) {
  return broker.call({.call = what, .area = area, .number = number, .name = name, .other = other});
}

tool::Fd BrokeredDirectory::append(const std::string& name) {
  return std::move(call(BrokerCall::append, name).file);
}

tool::Fd BrokeredDirectory::read(const std::string& name) {
  return std::move(call(BrokerCall::read, name).file);
}

void BrokeredDirectory::truncate(const std::string& name, std::uint64_t size) {
  call(BrokerCall::truncate, name, size);
}

void BrokeredDirectory::remove(const std::string& name) {
  call(BrokerCall::remove, name);
}

void BrokeredDirectory::rename(const std::string& from, const std::string& to) {
  call(BrokerCall::rename, from, 0, to);
}

void BrokeredDirectory::sync() {
  call(BrokerCall::sync, "");
}

std::vector<std::string> BrokeredDirectory::names() {
  std::vector<std::string> found;
  for (;;) {
    const BrokerReply reply = call(BrokerCall::names, "", found.size());
    for (std::size_t begin = 0, end = 0; (end = reply.text.find('/', begin)) != std::string::npos;
         begin = end + 1) {
      found.push_back(reply.text.substr(begin, end - begin));
    }
    if (found.size() >= reply.number || reply.text.empty()) {
      return found;
    }
  }
}

void BrokeredDirectory::startFinish(const std::string& finalName, const std::string& line) {
  broker.start({.call = BrokerCall::finishSegment, .area = area, .name = finalName, .other = line});
}

std::optional<FinishResult> BrokeredDirectory::finishResult(bool wait) {
  auto reply = broker.startedReply(wait);
  if (!reply) {
    return std::nullopt;
  }
  return FinishResult{reply->number != 0, std::move(reply->text)};
}

StoreAccess::NewStream BrokeredAccess::createStream() {
  BrokerReply reply = broker.call({.call = BrokerCall::createStream, .name = {}, .other = {}});
  const std::vector<std::string> parts = partsOf(reply.text);
  return {parseHead(parts.at(0)),
          std::make_unique<BrokeredDirectory>(broker, parts.at(1), BrokerArea::stream,
                                              std::move(reply.file))};
}

std::unique_ptr<StreamDirectory> BrokeredAccess::outside() {
  return std::make_unique<BrokeredDirectory>(broker, directory, BrokerArea::outside);
}

std::optional<UnfinishedStream> BrokeredUnfinishedStreams::next() {
  BrokerReply reply = broker.call({.call = BrokerCall::nextUnfinished, .name = {}, .other = {}});
  if (reply.number == 0) {
    return std::nullopt;
  }
  const std::vector<std::string> parts = partsOf(reply.text);
  return UnfinishedStream{parseHead(parts.at(0)),
                          std::make_unique<BrokeredDirectory>(
                              broker, parts.at(1), BrokerArea::stream, std::move(reply.file))};
}

}  // namespace orvaned
