#pragma once

// BT.709's luma and colour differences of RGB pixels, in limited range and in integers.
//
// Weights are signed bytes, since SIMD multiplies bytes fastest. They are the exact weights times a
// factor, rounded. `scale` removes the factor again. With the right factor eight bits are enough.
// Exact luma is the sum of 0.2126 red, 0.7152 green and 0.0722 blue. Before rounding, our luma is
// off by at most 0.21 of a step, and a colour difference by at most 0.006 of a step. Greys are
// exact. SIMD sums two neighbouring products in 16 bits, so two neighbouring weights of the same
// sign add up to 128 at most.

#include <array>
#include <cstddef>
#include <cstdint>
#include <utility>

#include "platform/image.h"

namespace lumora::bt709 {

using Pixel = std::array<std::uint8_t, 4>;

constexpr int fractionBits = 22;

struct Weighting {
  Pixel weights;  // signed
  std::int16_t scale;
  std::int32_t offset;  // luma of black or chroma of grey, plus a half for rounding

  constexpr std::uint8_t of(const Pixel& pixel) const {
    int sum = 0;
    for (std::size_t i = 0; i < 4; ++i) sum += static_cast<std::int8_t>(weights[i]) * pixel[i];
    return static_cast<std::uint8_t>((sum * scale + offset) >> fractionBits);
  }
};

// Maps a weighted sum of 0 to `zero`, and a weighted sum that equals `sum` to `zero` + `steps`.
constexpr Weighting weighting(int blue, int green, int red, int sum, int steps, int zero) {
  const auto weight = [](int value) { return static_cast<std::uint8_t>(value); };
  const double scale = static_cast<double>(steps) * (1 << fractionBits) / sum;
  return {{weight(blue), weight(green), weight(red), 0},
          static_cast<std::int16_t>(scale + 0.5),
          (zero << fractionBits) + (1 << (fractionBits - 1))};
}

// The weights are in the order of the pixel's channels.
struct Weightings {
  Weighting luma, blueDifference, redDifference;
};

constexpr Weightings bgra = {weighting(10, 98, 29, 255 * 137, 219, 16),
                             weighting(96, -74, -22, 255 * 96, 112, 128),
                             weighting(-11, -109, 120, 255 * 120, 112, 128)};

constexpr Weighting redFirst(Weighting of) {
  std::swap(of.weights[0], of.weights[2]);
  return of;
}
constexpr Weightings rgba = {redFirst(bgra.luma), redFirst(bgra.blueDifference),
                             redFirst(bgra.redDifference)};

constexpr const Weightings& weightings(PixelLayout layout) {
  return layout == PixelLayout::bgra ? bgra : rgba;
}

// The bytes as a little-endian word.
constexpr std::uint32_t packed(const Pixel& bytes) {
  return bytes[0] | bytes[1] << 8 | bytes[2] << 16 | static_cast<std::uint32_t>(bytes[3]) << 24;
}

// Rounded up, as SIMD does it. The weights of a colour difference add up to 0, so the bias cancels.
constexpr Pixel average(const Pixel& a, const Pixel& b) {
  Pixel result{};
  for (std::size_t i = 0; i < 4; ++i) result[i] = static_cast<std::uint8_t>((a[i] + b[i] + 1) / 2);
  return result;
}

constexpr Pixel pixelAt(const std::uint8_t* row, std::size_t x) {
  return {row[x * 4], row[x * 4 + 1], row[x * 4 + 2], row[x * 4 + 3]};
}

constexpr Pixel averageRows(const std::uint8_t* top, const std::uint8_t* bottom, std::size_t x) {
  return average(pixelAt(top, x), pixelAt(bottom, x));
}

inline void lumaRow(const Weightings& of, const std::uint8_t* row, std::size_t width,
                    std::uint8_t* y) {
  for (std::size_t x = 0; x < width; ++x) y[x] = of.luma.of(pixelAt(row, x));
}

// A chroma sample averages both rows of three columns: its own, which counts twice, and the columns
// left and right of it. The pixel left of the first counts as equal to the first.
inline void chromaRow(const Weightings& of, const std::uint8_t* top, const std::uint8_t* bottom,
                      std::size_t width, std::uint8_t* u, std::uint8_t* v) {
  for (std::size_t x = 0; x < width; x += 2) {
    const Pixel before = averageRows(top, bottom, x == 0 ? 0 : x - 1);
    const Pixel sides = average(before, averageRows(top, bottom, x + 1));
    const Pixel pixel = average(sides, averageRows(top, bottom, x));
    u[x / 2] = of.blueDifference.of(pixel);
    v[x / 2] = of.redDifference.of(pixel);
  }
}

}  // namespace lumora::bt709
