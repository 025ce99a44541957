#pragma once

#include <cstdint>
#include <span>
#include <vector>

namespace lumora::client {

// Fills `space` with the lowest bytes of `value`, most significant first.
inline void storeBigEndian(std::span<std::uint8_t> space, std::uint64_t value) {
  for (auto byte = space.rbegin(); byte != space.rend(); ++byte, value >>= 8) {
    *byte = static_cast<std::uint8_t>(value);
  }
}

// Appends the lowest `count` bytes of `value`.
inline void appendBigEndian(std::vector<std::uint8_t>& bytes, std::uint64_t value,
                            std::size_t count) {
  bytes.resize(bytes.size() + count);
  storeBigEndian(std::span(bytes).last(count), value);
}

}  // namespace lumora::client
