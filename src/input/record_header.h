#pragma once

// The 16-byte header in front of every record on standard input (all big-endian):
//
//   0        4        6        8                16
//   +--------+--------+--------+----------------+----------
//   | length | width  | height | frame id       | payload
//   +--------+--------+--------+----------------+----------
//
// Width, height and id all 0 make a command record; anything else is a frame record.

#include <cstdint>

#include "base/bytes.h"

namespace lumora {

constexpr std::size_t recordHeaderBytes = 16;

struct RecordHeader {
  std::uint32_t length = 0;  // payload bytes
  std::uint16_t width = 0;   // pixels
  std::uint16_t height = 0;  // pixels
  std::uint64_t id = 0;

  bool isCommand() const { return width == 0 && height == 0 && id == 0; }
};

// Decodes the first `recordHeaderBytes` of `bytes`.
RecordHeader decodeRecordHeader(ByteView bytes);

// Whether a frame record keeps all limits, `lastID` being the id of the frame before it.
bool isValidFrame(const RecordHeader& header, std::uint64_t lastID);

bool isValidCommand(const RecordHeader& header);

}  // namespace lumora
