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

  // u(1). Beyond the end every bit is 0.
  bool flag() {
    const std::size_t at = position_ / 8;
    const std::size_t shift = 7 - position_ % 8;
    if (!isExhausted()) ++position_;
    return at < bytes_.size() && (bytes_[at] >> shift & 1) != 0;
  }
  // u(n)
  std::uint32_t bits(int count) {
    std::uint32_t value = 0;
    for (; count > 0; --count) value = value << 1 | (flag() ? 1U : 0U);
    return value;
  }
  // ue(v). Beyond the end every bit is 0, so check `isExhausted`. A value above 2^32 - 2 exhausts
  // the reader.
  std::uint32_t expGolomb() {
    int zeros = 0;
    while (!isExhausted() && !flag()) ++zeros;
    if (zeros > 31) position_ = bytes_.size() * 8 + 1;
    return isExhausted() ? 0 : (1U << zeros) - 1 + bits(zeros);
  }
  // Skips `count` values, each ue(v) or se(v). The two codes have the same lengths.
  void skipExpGolomb(std::uint32_t count) {
    for (; count > 0 && !isExhausted(); --count) expGolomb();
  }

  std::size_t position() const { return position_; }  // in bits
  // Whether a read went beyond the end, or a value was invalid.
  bool isExhausted() const { return position_ > bytes_.size() * 8; }

 private:
  ByteView bytes_;
  std::size_t position_;
};

class BitWriter {
 public:
  void flag(bool value) {
    if (free_ == 0) {
      bytes_.push_back(0);
      free_ = 8;
    }
    --free_;
    if (value) bytes_.back() = static_cast<std::uint8_t>(bytes_.back() | 1 << free_);
  }
  void bits(std::uint32_t value, int count) {
    while (count-- > 0) flag((value >> count & 1) != 0);
  }
  void expGolomb(std::uint32_t value) {
    int length = 0;
    while ((value + 1) >> length > 1) ++length;
    bits(0, length);
    bits(value + 1, length + 1);
  }
  // Copies the bits of `from` that lie between its position and `upTo`.
  void copy(BitReader& from, std::size_t upTo) {
    while (from.position() < upTo) flag(from.flag());
  }
  // Appends a one, then zeros up to a whole byte.
  Bytes finish() {
    flag(true);
    return std::move(bytes_);
  }

 private:
  Bytes bytes_;
  int free_ = 0;  // bits of the last byte
};

}  // namespace lumora
