#pragma once

// Bits of an H.264 parameter set, most significant first (ISO/IEC 14496-10, 7.2 and 9.1).

#include <cstddef>
#include <cstdint>
#include <utility>

#include "base/bytes.h"

namespace lumora {

class BitReader {
 public:
  explicit BitReader(ByteView bytes, std::size_t position = 0)
      : bytes_(bytes), position_(position) {}

  // u(n): 0 beyond the end, as is all that follows.
  std::uint32_t bits(int count) {
    std::uint32_t value = 0;
    for (; count > 0; --count) value = value << 1 | bit();
    return value;
  }
  bool flag() { return bit() != 0; }
  // ue(v)
  std::uint32_t expGolomb() {
    int zeros = 0;
    while (!isExhausted() && !flag()) ++zeros;
    if (zeros > 31) exhaust();
    return isExhausted() ? 0 : (1U << zeros) - 1 + bits(zeros);
  }
  // Signed ones have as many bits as unsigned ones.
  void skipExpGolomb(std::uint32_t count) {
    for (; count > 0 && !isExhausted(); --count) expGolomb();
  }

  std::size_t position() const { return position_; }  // in bits
  // Whether more was read than there is, or what can't be.
  bool isExhausted() const { return position_ > bytes_.size() * 8; }

 private:
  std::uint32_t bit() {
    const std::size_t at = position_ / 8;
    const std::size_t shift = 7 - position_ % 8;
    if (!isExhausted()) ++position_;
    return at < bytes_.size() ? static_cast<std::uint32_t>(bytes_[at] >> shift & 1) : 0;
  }
  void exhaust() { position_ = bytes_.size() * 8 + 1; }

  ByteView bytes_;
  std::size_t position_;
};

class BitWriter {
 public:
  void bits(std::uint32_t value, int count) {
    while (count-- > 0) bit((value >> count & 1) != 0);
  }
  void flag(bool value) { bit(value); }
  void expGolomb(std::uint32_t value) {
    int length = 0;
    while ((value + 1) >> length > 1) ++length;
    bits(0, length);
    bits(value + 1, length + 1);
  }
  // What follows in `from`, up to a position there.
  void copy(BitReader& from, std::size_t upTo) {
    while (from.position() < upTo) flag(from.flag());
  }
  // Ends with a one and zeros up to a whole byte.
  Bytes finish() {
    flag(true);
    return std::move(bytes_);
  }

 private:
  void bit(bool value) {
    if (free_ == 0) {
      bytes_.push_back(0);
      free_ = 8;
    }
    --free_;
    if (value) bytes_.back() = static_cast<std::uint8_t>(bytes_.back() | 1 << free_);
  }

  Bytes bytes_;
  int free_ = 0;  // bits of the last byte
};

}  // namespace lumora
