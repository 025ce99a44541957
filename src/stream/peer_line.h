#pragma once

// The lines that stream clients send, without their line feed:
//   {"type":"hello","token":"..."}     once, before anything else
//   {"type":"ack","frame_id":123}      after that
// Pure, and strict: further keys are ignored, anything else is invalid.

#include <cstdint>
#include <string>
#include <string_view>
#include <variant>

#include "base/bytes.h"

namespace lumora {

struct InvalidLine {};
struct HelloLine {
  std::string token;  // at most 128 bytes
};
struct AckLine {
  std::uint64_t frameID = 0;
};
using PeerLine = std::variant<InvalidLine, HelloLine, AckLine>;

PeerLine parsePeerLine(ByteView line);

// Compares two secrets in a time that depends on their lengths only.
bool constantTimeEqual(std::string_view first, std::string_view second);

}  // namespace lumora
