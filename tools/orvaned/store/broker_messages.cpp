#include "store/broker_messages.hpp"

#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

namespace orvaned {
namespace {

struct RequestHead {
  std::uint32_t serial;
  std::uint32_t call;
  std::uint32_t area;
  std::uint32_t nameSize;
  std::uint64_t number;
};
static_assert(sizeof(RequestHead) == 24);

struct ReplyHead {
  std::uint32_t serial;
  std::int32_t error;
  std::uint64_t number;
};
static_assert(sizeof(ReplyHead) == 16);

using FileControl = std::array<char, CMSG_SPACE(sizeof(int))>;

void attach(msghdr& message, FileControl& control, int file) {
  message.msg_control = control.data();
  message.msg_controllen = control.size();
  cmsghdr* head = CMSG_FIRSTHDR(&message);
  head->cmsg_level = SOL_SOCKET;
  head->cmsg_type = SCM_RIGHTS;
  head->cmsg_len = CMSG_LEN(sizeof(int));
  std::memcpy(CMSG_DATA(head), &file, sizeof file);
}

tool::Fd fileOf(msghdr& message) {
  const cmsghdr* head = CMSG_FIRSTHDR(&message);
  if (head == nullptr || head->cmsg_type != SCM_RIGHTS) {
    return tool::Fd();
  }
  int file = -1;
  std::memcpy(&file, CMSG_DATA(head), sizeof file);
  return tool::Fd(file);
}

std::vector<std::string> split(const std::string& text, char end) {
  std::vector<std::string> parts;
  for (auto begin = text.begin(); begin != text.end() + 1;) {
    const auto next = std::find(begin, text.end(), end);
    parts.emplace_back(begin, next);
    begin = next + 1;
  }
  return parts;
}

}  // namespace

std::vector<unsigned char> bytesOf(const BrokerRequest& request) {
  const RequestHead head = {request.serial, static_cast<std::uint32_t>(request.call),
                            static_cast<std::uint32_t>(request.area),
                            static_cast<std::uint32_t>(request.name.size()), request.number};
  std::vector<unsigned char> bytes(sizeof head);
  std::memcpy(bytes.data(), &head, sizeof head);
  bytes.insert(bytes.end(), request.name.begin(), request.name.end());
  bytes.insert(bytes.end(), request.other.begin(), request.other.end());
  return bytes;
}

std::optional<BrokerRequest> parseRequest(std::span<const unsigned char> bytes) {
  RequestHead head = {};
  if (bytes.size() < sizeof head) {
    return std::nullopt;
  }
  std::memcpy(&head, bytes.data(), sizeof head);
  const auto text = bytes.subspan(sizeof head);
  if (head.call > static_cast<std::uint32_t>(BrokerCall::log) ||
      head.area > static_cast<std::uint32_t>(BrokerArea::outside) || head.nameSize > text.size()) {
    return std::nullopt;
  }
  const auto name = text.first(head.nameSize);
  const auto other = text.subspan(head.nameSize);
  return BrokerRequest{
      head.serial, static_cast<BrokerCall>(head.call),    static_cast<BrokerArea>(head.area),
      head.number, std::string(name.begin(), name.end()), std::string(other.begin(), other.end())};
}

bool sendRequest(const tool::Fd& socket, const BrokerRequest& request, int flags) {
  const std::vector<unsigned char> bytes = bytesOf(request);
  ssize_t sent = -1;
  do {
    sent = send(socket.get(), bytes.data(), bytes.size(), flags | MSG_NOSIGNAL);
  } while (sent < 0 && errno == EINTR);
  return sent >= 0;
}

void sendReply(const tool::Fd& socket, const BrokerReply& reply) {
  ReplyHead head = {reply.serial, reply.error, reply.number};
  std::string text = reply.text.substr(0, kLongestBrokerText);
  iovec parts[] = {{&head, sizeof head}, {text.data(), text.size()}};
  msghdr message = {};
  message.msg_iov = parts;
  message.msg_iovlen = 2;
  alignas(cmsghdr) FileControl control = {};
  if (reply.file.get() >= 0) {
    attach(message, control, reply.file.get());
  }
  while (sendmsg(socket.get(), &message, MSG_NOSIGNAL) < 0 && errno == EINTR) {
  }
}

std::optional<BrokerReply> receiveReply(const tool::Fd& socket) {
  ReplyHead head = {};
  std::string text(kLongestBrokerText, '\0');
  iovec parts[] = {{&head, sizeof head}, {text.data(), text.size()}};
  msghdr message = {};
  message.msg_iov = parts;
  message.msg_iovlen = 2;
  alignas(cmsghdr) FileControl control = {};
  message.msg_control = control.data();
  message.msg_controllen = control.size();
  ssize_t size = -1;
  do {
    size = recvmsg(socket.get(), &message, MSG_CMSG_CLOEXEC);
  } while (size < 0 && errno == EINTR);
  if (size < static_cast<ssize_t>(sizeof head)) {
    return std::nullopt;
  }
  text.resize(static_cast<std::size_t>(size) - sizeof head);
  return BrokerReply{head.serial, head.error, head.number, std::move(text), fileOf(message)};
}

std::vector<std::string> partsOf(const std::string& text) {
  return split(text, '\0');
}

std::string textOf(const tool::StreamHead& head) {
  std::string text;
  for (const std::string& line : linesOf(head)) {
    text += line + "\n";
  }
  return text;
}

tool::StreamHead parseHead(const std::string& text) {
  tool::StreamHeadParser parser;
  for (const std::string& line : split(text, '\n')) {
    parser.take(line);
  }
  return parser.head();
}

}  // namespace orvaned
