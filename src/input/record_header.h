#pragma once

// The 16-byte header in front of every record on standard input (all big-endian):
//
//   0        4        6        8                16
//   +--------+--------+--------+----------------+----------
//   | length | width  | height | frame id       | payload
//   +--------+--------+--------+----------------+----------
//
// Width, height and id all 0 make a command record; anything else is a frame record: its payload is
// the pixels or, from a parent that shares memory with us, the offset of its pixels there.

#include <cstdint>

#include "base/bytes.h"

namespace lumora {

constexpr std::size_t recordHeaderBytes = 16;
constexpr std::size_t frameOffsetBytes = 8;  // no frame of pixels is as short

struct RecordHeader {
  std::uint32_t length = 0;  // payload bytes
  std::uint16_t width = 0;   // pixels
  std::uint16_t height = 0;  // pixels
  std::uint64_t id = 0;

  bool isCommand() const { return width == 0 && height == 0 && id == 0; }
  std::uint32_t pictureBytes() const { return std::uint32_t{width} * height * 4; }
  bool carriesPixels() const { return length == pictureBytes(); }
};

// Decodes the first `recordHeaderBytes` of `bytes`.
RecordHeader decodeRecordHeader(ByteView bytes);

// Whether a frame record keeps the limits of size and id, `lastID` being the id of the frame before
// it.
bool isValidFrame(const RecordHeader& header, std::uint64_t lastID);

// Whether a picture of `bytes` may lie at `offset` of a memory of `memoryBytes`: at the beginning
// of a page, but not of the first.
bool isValidOffset(std::uint64_t offset, std::uint32_t bytes, std::uint64_t memoryBytes);

bool isValidCommand(const RecordHeader& header);

}  // namespace lumora
