#pragma once

// NAL units (ISO/IEC 14496-10, 7.3.1) in their two forms. In a byte stream (annex B) each unit
// follows a start code, 00 00 01 or 00 00 00 01. In a sample each unit follows its length:
//
//   +----------------+-----------------+----------------+-----
//   | length N (4 BE)| N bytes of NAL  | length (4 BE)  | ...
//   +----------------+-----------------+----------------+-----

#include <algorithm>
#include <array>
#include <cstdint>
#include <vector>

#include "base/big_endian.h"

namespace lumora {

// Table 7-1: the type is the low five bits of a unit's first byte.
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
constexpr std::size_t minimumSampleBytes = 5;  // a length, then a NAL header of one byte

// The NAL units of a byte stream, without start codes. The views point into `stream`. Pure.
std::vector<ByteView> splitAnnexB(ByteView stream);

// Appends the length of `unit` as 4 big-endian bytes, then `unit`.
void appendLengthPrefixed(Bytes& sample, ByteView unit);

enum class NalWalkError {
  none,
  truncatedHeader,   // 1 to 3 bytes left where a length is expected
  badSize,           // the length is 0, could not be read, or exceeds the bytes left
  unreadableHeader,  // the NAL header byte could not be read
};

struct NalWalk {
  NalWalkError error = NalWalkError::none;
  bool idr = false;
};

// Walks a sample of `length` bytes and tells whether it holds an IDR slice. The bytes need not be
// in one piece: `fetch(offset, space)` fills `space` with the bytes from `offset` on, or returns
// false.
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
    std::ranges::copy(sample.subspan(offset, space.size()), space.begin());
    return true;
  });
}

}  // namespace lumora
