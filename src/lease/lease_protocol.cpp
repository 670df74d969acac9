#include "orvane/lease_protocol.hpp"

#include <algorithm>

#include "lease/control_character.hpp"
#include "lease/number.hpp"
#include "orvane/escaped_text.hpp"

namespace orvane {
namespace {

constexpr ox_status_t kLowestServerStatus = 1000;  // the libraries throw lower ones

// Removes `word` from the begin of `text` and returns true, if it is there.
bool parseWord(std::string_view& text, std::string_view word) {
  if (text.substr(0, word.size()) != word) {
    return false;
  }
  text.remove_prefix(word.size());
  return true;
}

// Parses "1003 no room on disk".
template <typename Failure>
std::optional<LeaseReply> parseFailure(std::string_view text) {
  const auto status = takeNumber<ox_status_t>(text);
  if (status && *status >= kLowestServerStatus && parseWord(text, " ")) {
    return Failure{*status, std::string(text)};
  }
  return std::nullopt;
}

// Removes the word at the begin of `text` and the blank after it, and returns the word.
std::string_view nextWord(std::string_view& text) {
  const std::string_view word = text.substr(0, text.find(' '));
  text.remove_prefix(std::min(text.size(), word.size() + 1));
  return word;
}

// Parses "KEY=VALUE KEY=VALUE", and returns the value of `key`, "" if it is not there; nothing for
// another form.
std::optional<std::string> parseOptions(std::string_view text, std::string_view key) {
  std::string value;
  while (!text.empty()) {
    const std::string_view word = nextWord(text);
    const std::size_t equals = word.find('=');
    if (equals == 0 || equals == std::string_view::npos) {
      return std::nullopt;
    }
    if (word.substr(0, equals) == key) {
      value = word.substr(equals + 1);
    }
  }
  return value;
}

// Removes "orvane 1 " from the begin of a request; returns false if it is not there.
bool parseVersion(std::string_view& packet) {
  return std::none_of(packet.begin(), packet.end(), isControlCharacter) &&
         packet.find_last_of(' ') + 1 != packet.size() && nextWord(packet) == "orvane" &&
         nextWord(packet) == "1";
}

// A queue's name is the name of a file in a folder, so it has no slash.
bool isQueueName(std::string_view text) {
  return !text.empty() && text.find_first_of(" /") == std::string_view::npos;
}

std::string textOfReply(const LeaseGranted& reply) {
  return "lease " + reply.queue;
}
std::string textOfReply(const RingGranted& reply) {
  return "ring " + reply.name + " " + std::to_string(reply.bytes);
}
std::string textOfReply(const LeaseRefused& reply) {
  return "refused " + std::to_string(reply.status) + " " + reply.reason;
}
std::string textOfReply(const Receipt& reply) {
  return textOf(reply);
}
std::string textOfReply(const StreamFailed& reply) {
  return "failed " + std::to_string(reply.status) + " " + reply.reason;
}
std::string textOfReply(const TotalsFound& reply) {
  return reply.name.empty() ? "totals" : "totals " + reply.name;
}

}  // namespace

std::string packetOf(const LeaseReply& reply) {
  std::string packet = std::visit([](const auto& one) { return textOfReply(one); }, reply);
  packet.resize(std::min(packet.size(), kLongestLeasePacket));
  std::replace_if(packet.begin(), packet.end(), isControlCharacter, '?');
  return packet;
}

bool isLabel(std::string_view text) {
  return text.size() <= kLongestLabel && std::none_of(text.begin(), text.end(), isControlCharacter);
}

std::string packetOf(const LeaseRequest& request) {
  const std::string what = request.ringBytes == 0
                               ? std::string(kLeaseRequest)
                               : "orvane 1 ring " + std::to_string(request.ringBytes);
  return request.label.empty() ? what : what + " label=" + escaped(request.label);
}

std::string packetOf(const TotalsRequest& request) {
  return request.after.empty() ? "orvane 1 totals" : "orvane 1 totals after=" + request.after;
}

std::optional<LeaseRequest> parseLeaseRequest(std::string_view packet) {
  if (!parseVersion(packet)) {
    return std::nullopt;
  }
  const std::string_view what = nextWord(packet);
  LeaseRequest request;
  if (what == "ring") {
    const auto bytes = parseNumber(nextWord(packet));
    if (!bytes || *bytes == 0) {
      return std::nullopt;
    }
    request.ringBytes = *bytes;
  } else if (what != "lease") {
    return std::nullopt;
  }
  const auto word = parseOptions(packet, "label");
  const auto label = word ? unescaped(*word) : std::nullopt;
  if (!label || !isLabel(*label)) {
    return std::nullopt;
  }
  request.label = *label;
  return request;
}

std::optional<TotalsRequest> parseTotalsRequest(std::string_view packet) {
  if (!parseVersion(packet) || nextWord(packet) != "totals") {
    return std::nullopt;
  }
  const auto after = parseOptions(packet, "after");
  return after ? std::optional(TotalsRequest{*after}) : std::nullopt;
}

std::optional<LeaseReply> parseLeaseReply(std::string_view packet) {
  if (packet.size() > kLongestLeasePacket ||
      std::any_of(packet.begin(), packet.end(), isControlCharacter)) {
    return std::nullopt;
  }
  if (const auto receipt = parseReceipt(packet)) {
    return *receipt;
  }
  if (parseWord(packet, "lease ") && isQueueName(packet)) {
    return LeaseGranted{std::string(packet)};
  }
  if (parseWord(packet, "ring ")) {
    const std::string_view name = nextWord(packet);
    const auto bytes = parseNumber(packet);
    return isQueueName(name) && bytes
               ? std::optional<LeaseReply>(RingGranted{std::string(name), *bytes})
               : std::nullopt;
  }
  if (packet == "totals") {
    return TotalsFound{};
  }
  if (parseWord(packet, "totals ") && isQueueName(packet)) {
    return TotalsFound{std::string(packet)};
  }
  if (parseWord(packet, "refused ")) {
    return parseFailure<LeaseRefused>(packet);
  }
  if (parseWord(packet, "failed ")) {
    return parseFailure<StreamFailed>(packet);
  }
  return std::nullopt;
}

}  // namespace orvane
