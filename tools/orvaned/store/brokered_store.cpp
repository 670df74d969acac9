#include "store/brokered_store.hpp"

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

}  // namespace

BrokerReply BrokerClient::call(BrokerRequest request) {
  request.serial = ++serial;
  if (sendRequest(socket, request)) {
    while (auto reply = receiveReply(socket)) {
      if (reply->serial != request.serial) {
        continue;
      }
      if (reply->error != 0) {
        throw Ox_ErrnoException(orvane::kStoreFailed, reply->text, "");
      }
      return std::move(*reply);
    }
  }
  throw Ox_ErrnoException(orvane::kStoreFailed,
                          "the process that opens this worker's files has ended", "");
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

StoreAccess::NewStream BrokeredAccess::createStream() {
  BrokerReply reply = broker.call({.call = BrokerCall::createStream, .name = {}, .other = {}});
  const std::vector<std::string> parts = partsOf(reply.text);
  return {parts.at(0), std::make_unique<BrokeredDirectory>(broker, parts.at(1), BrokerArea::stream,
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
  return UnfinishedStream{parts.at(0), parts.at(1),
                          std::make_unique<BrokeredDirectory>(
                              broker, parts.at(2), BrokerArea::stream, std::move(reply.file))};
}

}  // namespace orvaned
