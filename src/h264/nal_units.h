#pragma once

// Walks a length-prefixed H.264 sample:
//
//   +----------------+-----------------+----------------+-----
//   | length N (4 BE)| N bytes of NAL  | length (4 BE)  | ...
//   +----------------+-----------------+----------------+-----
//
// and tells whether it holds an IDR slice. It reads through a `fetch(offset, space)` that may
// fail, since a sample's bytes belong to the platform.

#include <array>
#include <cstdint>

#include "base/big_endian.h"

namespace lumora {

enum class NalWalkError {
  none,
  truncatedHeader,   // 1 to 3 bytes left where a length is due
  badSize,           // length 0, unreadable, or past the end
  unreadableHeader,  // the NAL header byte could not be read
};

struct NalWalk {
  NalWalkError error = NalWalkError::none;
  bool idr = false;
};

// ISO/IEC 14496-10, 7.3.1 and table 7-1: the type is the low five bits of a unit's first byte.
constexpr std::uint8_t nalTypeMask = 0x1F;
enum class NalType : std::uint8_t {
  idrSlice = 5,
  sequenceParameterSet = 7,
  pictureParameterSet = 8,
  accessUnitDelimiter = 9,
};

constexpr NalType nalType(std::uint8_t header) {
  return static_cast<NalType>(header & nalTypeMask);
}

constexpr std::size_t nalLengthBytes = 4;      // in front of each unit of a sample
constexpr std::size_t minimumSampleBytes = 5;  // one length and one NAL header byte

template <typename Fetch>
NalWalk walkNalUnits(std::size_t length, Fetch&& fetch) {
  NalWalk walk;
  std::size_t offset = 0;
  while (offset < length) {
    if (length - offset < nalLengthBytes) return {NalWalkError::truncatedHeader, walk.idr};
    std::array<std::uint8_t, nalLengthBytes> prefix{};
    if (!fetch(offset, MutableByteView(prefix))) return {NalWalkError::badSize, walk.idr};
    const std::size_t size = integerBE<std::uint32_t>(prefix, 0);
    offset += nalLengthBytes;
    if (size == 0 || size > length - offset) return {NalWalkError::badSize, walk.idr};
    std::array<std::uint8_t, 1> header{};
    if (!fetch(offset, MutableByteView(header))) {
      return {NalWalkError::unreadableHeader, walk.idr};
    }
    if (nalType(header[0]) == NalType::idrSlice) walk.idr = true;
    offset += size;
  }
  return walk;
}

// The same walk over bytes in memory.
inline NalWalk walkNalUnits(ByteView sample) {
  return walkNalUnits(sample.size(), [sample](std::size_t offset, MutableByteView space) {
    for (std::size_t i = 0; i < space.size(); ++i) space[i] = sample[offset + i];
    return true;
  });
}

}  // namespace lumora
