// Highway compiles the part between HWY_BEFORE_NAMESPACE and HWY_AFTER_NAMESPACE once per
// instruction set and picks one when the program runs.
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "picture/rgb_to_yuv.cpp"
#include <hwy/foreach_target.h>
// Must come after foreach_target.h, which includes this file again.
#include <hwy/highway.h>

#include <cstddef>
#include <cstdint>

#include "picture/bt709.h"
#include "picture/rgb_to_yuv.h"

HWY_BEFORE_NAMESPACE();
namespace lumora {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

#if HWY_ARCH_X86 && HWY_TARGET <= HWY_SSSE3  // better targets have lower numbers

constexpr hn::ScalableTag<std::uint8_t> d8;
constexpr hn::Repartition<std::int16_t, decltype(d8)> d16;
constexpr hn::Repartition<std::int32_t, decltype(d8)> d32;
constexpr hn::Repartition<std::uint32_t, decltype(d8)> dPixels;
using Bytes = hn::Vec<decltype(d8)>;
using Values = hn::Vec<decltype(d32)>;
using Pixels = hn::Vec<decltype(dPixels)>;

// Instructions that Highway lacks.
#if HWY_MAX_BYTES == 64
#define LUMORA_X86(operation) _mm512_##operation
#elif HWY_MAX_BYTES == 32
#define LUMORA_X86(operation) _mm256_##operation
#else
#define LUMORA_X86(operation) _mm_##operation
#endif

// Multiplies bytes with signed bytes, and sums two neighbouring products.
HWY_INLINE hn::Vec<decltype(d16)> multiplyPairs(Bytes bytes, Pixels weights) {
  return {LUMORA_X86(maddubs_epi16)(bytes.raw, weights.raw)};
}

// Packs values to bytes. Every block of 16 bytes holds four of `a`, then of `b`, `c` and `d`.
HWY_INLINE Pixels packBlocks(Values a, Values b, Values c, Values d) {
  const auto low = hn::ReorderDemote2To(d16, a, b);
  const auto high = hn::ReorderDemote2To(d16, c, d);
  return {LUMORA_X86(packus_epi16)(low.raw, high.raw)};
}

#undef LUMORA_X86

// The table that sorts the result of `packBlocks`: first all bytes of `a`, then all of `b`, and so
// on.
HWY_INLINE auto blockOrder() {
  HWY_ALIGN std::int32_t order[HWY_MAX_BYTES / 4];
  const std::size_t blocks = hn::Lanes(d32) / 4;
  for (std::size_t i = 0; i < blocks * 4; ++i) {
    order[i] = static_cast<std::int32_t>(i % blocks * 4 + i / blocks);
  }
  return hn::SetTableIndices(dPixels, order);
}

// Moves `pixels` to the right by one pixel. The last pixel of `before` becomes the first.
HWY_INLINE Pixels moveUp(Pixels before, Pixels pixels) {
#if HWY_MAX_BYTES == 64
  return {_mm512_alignr_epi32(pixels.raw, before.raw, 15)};
#elif HWY_MAX_BYTES == 32
  const auto middle = _mm256_permute2x128_si256(before.raw, pixels.raw, 0x21);
  return {_mm256_alignr_epi8(pixels.raw, middle, 12)};
#else
  return {_mm_alignr_epi8(pixels.raw, before.raw, 12)};
#endif
}

// The constants for a picture's rows. The function for a row gets a copy, which the compiler keeps
// in registers. Without the copy, the constants would be loaded again after every store of bytes,
// because the compiler must assume that such a store changes any object.
class Kernel {
 public:
  explicit HWY_INLINE Kernel(const bt709::Weightings& of)
      : of_(of),
        luma_(broadcast(of.luma)),
        blue_(broadcast(of.blueDifference)),
        red_(broadcast(of.redDifference)) {}
  const bt709::Weightings& weightings() const { return of_; }

  // Pixels that a step takes from each row.
  static std::size_t step() { return hn::Lanes(d8); }

  HWY_INLINE void lumaStep(const std::uint8_t* pixels, std::uint8_t* y) const {
    const auto quarter = [&](std::size_t i) HWY_ATTR {
      return component(hn::LoadU(d8, pixels + i * step()), luma_);
    };
    hn::StoreU(inOrder(packBlocks(quarter(0), quarter(1), quarter(2), quarter(3))), d8, y);
  }

  // The last pixel of `left` is the left neighbour of the step's first pixel. The call updates
  // `left` for the next step.
  HWY_INLINE void chromaStep(const std::uint8_t* top, const std::uint8_t* bottom, Pixels& left,
                             std::uint8_t* u, std::uint8_t* v) const {
    const Bytes first = atChromaSites(top, bottom, left);
    const Bytes second = atChromaSites(top + 2 * step(), bottom + 2 * step(), left);
    const Bytes both = inOrder(packBlocks(component(first, blue_), component(second, blue_),
                                          component(first, red_), component(second, red_)));
    constexpr hn::Half<decltype(d8)> dHalf;
    hn::StoreU(hn::LowerHalf(dHalf, both), dHalf, u);
    hn::StoreU(hn::UpperHalf(dHalf, both), dHalf, v);
  }

 private:
  struct Component {
    Pixels weights;
    hn::Vec<decltype(d16)> scale;
    Values offset;
  };

  static HWY_INLINE Component broadcast(const bt709::Weighting& of) {
    return {hn::Set(dPixels, bt709::packed(of.weights)), hn::Set(d16, of.scale),
            hn::Set(d32, of.offset)};
  }

  static HWY_INLINE Values component(Bytes pixels, const Component& of) {
    auto unused = hn::Zero(d32);
    const auto sum = hn::ReorderWidenMulAccumulate(d32, multiplyPairs(pixels, of.weights), of.scale,
                                                   of.offset, unused);
    return hn::ShiftRight<bt709::fractionBits>(sum);
  }

  // Takes two vectors of pixels from each row. Returns one: the pixels at the places of chroma.
  static HWY_INLINE Bytes atChromaSites(const std::uint8_t* top, const std::uint8_t* bottom,
                                        Pixels& left) {
    const auto rows = [&](std::size_t at) HWY_ATTR {
      return hn::BitCast(dPixels,
                         hn::AverageRound(hn::LoadU(d8, top + at), hn::LoadU(d8, bottom + at)));
    };
    const Pixels low = rows(0);
    const Pixels high = rows(step());
    const Pixels odd = hn::ConcatOdd(dPixels, high, low);
    const auto here = hn::BitCast(d8, hn::ConcatEven(dPixels, high, low));
    const auto before = hn::BitCast(d8, moveUp(left, odd));
    left = odd;
    return hn::AverageRound(hn::AverageRound(before, hn::BitCast(d8, odd)), here);
  }

  HWY_INLINE Bytes inOrder(Pixels blocks) const {
    return hn::BitCast(d8, hn::TableLookupLanes(blocks, order_));
  }

  const bt709::Weightings& of_;
  decltype(blockOrder()) order_ = blockOrder();
  Component luma_;
  Component blue_;
  Component red_;
};

// If the width is not a multiple of the step, the last step overlaps the step before it.
HWY_INLINE void lumaRow(Kernel kernel, const std::uint8_t* row, std::size_t width,
                        std::uint8_t* y) {
  const std::size_t step = Kernel::step();
  if (width < step) return bt709::lumaRow(kernel.weightings(), row, width, y);
  for (std::size_t x = 0; x + step <= width; x += step) kernel.lumaStep(row + x * 4, y + x);
  const std::size_t last = width - step;
  if (width % step != 0) kernel.lumaStep(row + last * 4, y + last);
}

HWY_INLINE void chromaRow(Kernel kernel, const std::uint8_t* top, const std::uint8_t* bottom,
                          std::size_t width, std::uint8_t* u, std::uint8_t* v) {
  const std::size_t step = Kernel::step();
  if (width < step) return bt709::chromaRow(kernel.weightings(), top, bottom, width, u, v);
  // The pixel left of the first counts as equal to the first.
  const auto pixelBefore = [&](std::size_t x) HWY_ATTR {
    return hn::Set(dPixels, bt709::packed(bt709::averageRows(top, bottom, x == 0 ? 0 : x - 1)));
  };
  Pixels left = pixelBefore(0);
  for (std::size_t x = 0; x + step <= width; x += step) {
    kernel.chromaStep(top + x * 4, bottom + x * 4, left, u + x / 2, v + x / 2);
  }
  if (width % step == 0) return;
  const std::size_t last = width - step;
  left = pixelBefore(last);
  kernel.chromaStep(top + last * 4, bottom + last * 4, left, u + last / 2, v + last / 2);
}

#else  // Targets without products of bytes and signed bytes: plain loops.

using Kernel = bt709::Weightings;
using bt709::chromaRow;
using bt709::lumaRow;

#endif

void convert(const PictureView& source, Plane y, Plane u, Plane v) {
  const Kernel kernel(bt709::weightings(source.format.layout));
  const auto [pixels, stride] = source.planes[0];
  const auto width = static_cast<std::size_t>(source.size.width);
  for (std::int64_t row = 0; row < source.size.height; row += 2) {
    const std::uint8_t* top = pixels + row * stride;
    const std::uint8_t* bottom = top + stride;
    lumaRow(kernel, top, width, y.samples + row * y.stride);
    lumaRow(kernel, bottom, width, y.samples + (row + 1) * y.stride);
    chromaRow(kernel, top, bottom, width, u.samples + row / 2 * u.stride,
              v.samples + row / 2 * v.stride);
  }
}

}  // namespace HWY_NAMESPACE
}  // namespace lumora
HWY_AFTER_NAMESPACE();

#if HWY_ONCE

#include <libyuv.h>

#include <vector>

namespace lumora {
HWY_EXPORT(convert);

void convertToI420(const PictureView& source, Plane y, Plane u, Plane v) {
  HWY_DYNAMIC_DISPATCH(convert)(source, y, u, v);
}

void convertToNV12(const PictureView& source, Plane y, Plane uv) {
  const std::int64_t columns = source.size.width / 2;
  const std::int64_t rows = source.size.height / 2;
  std::vector<std::uint8_t> planes(static_cast<std::size_t>(2 * columns * rows));
  const Plane u{planes.data(), columns};
  const Plane v{planes.data() + columns * rows, columns};
  convertToI420(source, y, u, v);
  libyuv::MergeUVPlane(u.samples, static_cast<int>(u.stride), v.samples, static_cast<int>(v.stride),
                       uv.samples, static_cast<int>(uv.stride), static_cast<int>(columns),
                       static_cast<int>(rows));
}

}  // namespace lumora

#endif  // HWY_ONCE
