#pragma once

namespace orvane {

// No packet holds one: what a peer sends is put into messages, which may be shown on a terminal.
inline bool isControlCharacter(char c) {
  return static_cast<unsigned char>(c) < ' ' || c == '\x7f';
}

}  // namespace orvane
