#pragma once

#include <cstdint>
#include <vector>

namespace lumora::client {

// Appends the lowest `count` bytes of `value`, the highest of them first.
inline void appendBigEndian(std::vector<std::uint8_t>& bytes, std::uint64_t value, int count) {
  for (int shift = 8 * (count - 1); shift >= 0; shift -= 8) {
    bytes.push_back(static_cast<std::uint8_t>(value >> shift));
  }
}

}  // namespace lumora::client
