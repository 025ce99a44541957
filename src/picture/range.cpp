// Highway compiles the part between HWY_BEFORE_NAMESPACE and HWY_AFTER_NAMESPACE once per
// instruction set and picks one when the program runs.
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "picture/range.cpp"
#include <hwy/foreach_target.h>
// Must come after foreach_target.h, which includes this file again.
#include <hwy/highway.h>

#include <cstddef>
#include <cstdint>

#include "picture/range.h"

HWY_BEFORE_NAMESPACE();
namespace lumora {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

// Sample v becomes (v × 256 × scale / 65536 + offset) / 256.
void compressRow(const std::uint8_t* from, std::uint8_t* to, std::size_t count, std::uint16_t scale,
                 std::uint16_t offset) {
  const hn::ScalableTag<std::uint16_t> d16;
  const hn::Rebind<std::uint8_t, decltype(d16)> d8;
  const auto convert = [&](auto samples) HWY_ATTR {
    const auto scaled =
        hn::MulHigh(hn::ShiftLeft<8>(hn::PromoteTo(d16, samples)), hn::Set(d16, scale));
    const auto rounded = hn::ShiftRight<8>(hn::Add(scaled, hn::Set(d16, offset)));
    return hn::DemoteTo(d8, hn::BitCast(hn::RebindToSigned<decltype(d16)>(), rounded));
  };
  const std::size_t step = hn::Lanes(d16);
  std::size_t i = 0;
  for (; i + step <= count; i += step) hn::StoreU(convert(hn::LoadU(d8, from + i)), d8, to + i);
  for (; i < count; ++i)
    to[i] = static_cast<std::uint8_t>(((from[i] * 256U * scale >> 16) + offset) >> 8);
}

}  // namespace HWY_NAMESPACE
}  // namespace lumora
HWY_AFTER_NAMESPACE();

#if HWY_ONCE

#include <cmath>

namespace lumora {
HWY_EXPORT(compressRow);

void compressRange(PlaneView source, Plane destination, std::int64_t bytes, std::int64_t rows,
                   SampleKind kind) {
  // 255 steps become 219 or 224. Luma 0 becomes 16, and chroma 128 stays. `compressRow`
  // divides by 256 and drops the rest, so 128 is added to round to the nearest.
  const bool isLuma = kind == SampleKind::luma;
  const double scale = (isLuma ? 219 : 224) / 255.0;
  const double offset = isLuma ? 16 : 128 - 128 * scale;
  for (std::int64_t row = 0; row < rows; ++row) {
    HWY_DYNAMIC_DISPATCH(compressRow)
    (source.samples + row * source.stride, destination.samples + row * destination.stride,
     static_cast<std::size_t>(bytes), static_cast<std::uint16_t>(std::lround(scale * 65536)),
     static_cast<std::uint16_t>(std::lround(offset * 256 + 128)));
  }
}

}  // namespace lumora

#endif  // HWY_ONCE
