#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "shm/fd.hpp"
#include "store_format/stream_head.hpp"

namespace orvaned {

// The protocol between a confined process and its broker, over a Unix socket of packets
// (SOCK_SEQPACKET). Both run the same program, so numbers are in the machine's own byte order. But
// a hostile producer may have taken the confined process over, so the broker trusts no byte.
//
//   request   serial 4, call 4, area 4, size of the name 4, number 8, name, other text
//   reply     serial 4, error 4, number 8, text; with or without one file (SCM_RIGHTS)
//
// `finishSegment` is answered when the segment is finished; until then the broker opens and removes
// files, but any other request waits. A reply carries the serial of its request: a process that
// continues after another one died skips the replies that the dead one did not receive.
enum class BrokerCall : std::uint32_t {
  checkStore,      // can the store be written to?
  createStream,    // -> text: head, path; closes the previous stream's folder
  append,          // name -> file
  read,            // name -> file
  truncate,        // name, number: size
  remove,          // name
  rename,          // name, other: the new name
  sync,            //
  names,           // number: how many to skip -> text: names, each ended by '/'; number: all
  finishSegment,   // name: the final one, other: its line -> number: 1 if it is listed
  nextUnfinished,  // -> number: 1 when there is one; text: head, path
  log              // number: kind * 2^32 + code, other: line; no reply
};

// The set of files that a name belongs to.
enum class BrokerArea : std::uint32_t { stream, outside };

struct BrokerRequest {
  std::uint32_t serial = 0;
  BrokerCall call = BrokerCall::checkStore;
  BrokerArea area = BrokerArea::stream;
  std::uint64_t number = 0;
  std::string name;
  std::string other;
};

struct BrokerReply {
  std::uint32_t serial = 0;
  std::int32_t error = 0;  // an errno value; `text` then describes what failed
  std::uint64_t number = 0;
  std::string text;  // several parts are divided by '\0'
  tool::Fd file;
};

constexpr std::size_t kLongestBrokerText = 32768;

std::vector<unsigned char> bytesOf(const BrokerRequest& request);

// Returns nothing if the bytes are not a request.
std::optional<BrokerRequest> parseRequest(std::span<const unsigned char> bytes);

// With MSG_DONTWAIT in `flags`, returns false when there is no room.
bool sendRequest(const tool::Fd& socket, const BrokerRequest& request, int flags = 0);
void sendReply(const tool::Fd& socket, const BrokerReply& reply);

// Returns nothing when the other side has ended.
std::optional<BrokerReply> receiveReply(const tool::Fd& socket);

std::vector<std::string> partsOf(const std::string& text);

// A stream's head as one part: its lines, each with its end.
std::string textOf(const tool::StreamHead& head);
tool::StreamHead parseHead(const std::string& text);

}  // namespace orvaned
