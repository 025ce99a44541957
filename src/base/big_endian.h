#pragma once

// Big-endian integers: the byte order of input records, of the stream, of NAL lengths and of MP4.

#include <concepts>

#include "base/bytes.h"

namespace lumora {

// The unsigned integer that starts at `offset`; the caller guarantees that its bytes exist.
template <std::unsigned_integral Integer>
Integer integerBE(ByteView bytes, std::size_t offset) {
  Integer value = 0;
  for (std::size_t i = 0; i < sizeof(Integer); ++i) {
    value = static_cast<Integer>((std::uint64_t{value} << 8) | bytes[offset + i]);
  }
  return value;
}

// Writes `value` at `space`, which has room for it.
template <std::unsigned_integral Integer>
void storeBE(std::uint8_t* space, Integer value) {
  for (std::size_t i = 0; i < sizeof(Integer); ++i) {
    space[i] = static_cast<std::uint8_t>(value >> (8 * (sizeof(Integer) - 1 - i)));
  }
}

template <std::unsigned_integral Integer>
void appendBE(Bytes& bytes, Integer value) {
  bytes.resize(bytes.size() + sizeof(Integer));
  storeBE(bytes.data() + bytes.size() - sizeof(Integer), value);
}

}  // namespace lumora
