#pragma once

#include <string_view>

#include "base/big_endian.h"

namespace lumora {

// Appends a box (ISO/IEC 14496-12, 4.2): a size, a type and contents. The contents are what is
// appended while this object lives. The destructor fills in the size. Nested scopes make nested
// boxes.
class Box {
 public:
  Box(Bytes& bytes, std::string_view type) : bytes_(bytes), start_(bytes.size()) {
    appendBE(bytes_, std::uint32_t{0});
    bytes_.insert(bytes_.end(), type.begin(), type.end());
  }
  // A full box, with version and flags.
  Box(Bytes& bytes, std::string_view type, std::uint8_t version, std::uint32_t flags)
      : Box(bytes, type) {
    appendBE(bytes_, (std::uint32_t{version} << 24) | flags);
  }
  ~Box() { storeBE(bytes_.data() + start_, static_cast<std::uint32_t>(bytes_.size() - start_)); }
  Box(const Box&) = delete;
  Box& operator=(const Box&) = delete;

 private:
  Bytes& bytes_;
  std::size_t start_;
};

inline void u8(Bytes& bytes, std::uint8_t value) { bytes.push_back(value); }
inline void u16(Bytes& bytes, std::uint16_t value) { appendBE(bytes, value); }
inline void u32(Bytes& bytes, std::uint32_t value) { appendBE(bytes, value); }
inline void u64(Bytes& bytes, std::uint64_t value) { appendBE(bytes, value); }
inline void zeros(Bytes& bytes, std::size_t count) { bytes.resize(bytes.size() + count); }
inline void text(Bytes& bytes, std::string_view value) {
  bytes.insert(bytes.end(), value.begin(), value.end());
}

}  // namespace lumora
