#pragma once

// The 16-byte header in front of every record on standard input (all big-endian):
//
//   0        4        6        8                16
//   +--------+--------+--------+----------------+----------
//   | length | width  | height | frame id       | payload
//   +--------+--------+--------+----------------+----------
//
// In a command record width, height and id are all 0. If only width and height are 0 and the parent
// sends sound, the record is sound. Every other record is a frame record. Its payload is the
// picture. If the parent shares memory with us, the payload may be a reference instead: the
// picture's offset in that memory and, only for JPEG, the picture's length, each in 64 bits.

#include <cstdint>

#include "base/bytes.h"
#include "platform/image.h"

namespace lumora {

constexpr std::size_t recordHeaderBytes = 16;
constexpr std::size_t referenceFieldBytes = 8;

struct RecordHeader {
  std::uint32_t length = 0;  // payload bytes
  std::uint16_t width = 0;   // pixels
  std::uint16_t height = 0;  // pixels
  std::uint64_t id = 0;

  bool isCommand() const { return width == 0 && height == 0 && id == 0; }
  bool isSound() const { return width == 0 && height == 0 && id != 0; }
  PictureSize size() const { return {width, height}; }
};

// Decodes the first `recordHeaderBytes` of `bytes`.
RecordHeader decodeRecordHeader(ByteView bytes);

// Whether a frame record has a valid size, and an id above `lastID`. The frame before it had the id
// `lastID`.
bool isValidFrame(const RecordHeader& header, std::uint64_t lastID);

// Whether a picture of `bytes` may lie at `offset` in `memoryBytes` of memory. It must start at a
// page, but not the first one, and end inside the memory.
bool isValidOffset(std::uint64_t offset, std::uint64_t bytes, std::uint64_t memoryBytes);

// Whether a command record has a valid length.
bool isValidCommand(const RecordHeader& header);

}  // namespace lumora
