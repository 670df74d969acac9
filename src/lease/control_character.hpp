#pragma once

namespace orvane {

// A packet has no control characters, because its text may be shown on a terminal.
inline bool isControlCharacter(char c) {
  return static_cast<unsigned char>(c) < ' ' || c == '\x7f';
}

}  // namespace orvane
