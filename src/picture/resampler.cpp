// Highway compiles the part between HWY_BEFORE_NAMESPACE and HWY_AFTER_NAMESPACE once per
// instruction set and picks one when the program runs.
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "picture/resampler.cpp"
#include <hwy/foreach_target.h>
// Must come after foreach_target.h, which includes this file again.
#include <hwy/cache_control.h>
#include <hwy/highway.h>

#include <cstddef>
#include <cstdint>

#include "picture/resampler.h"

HWY_BEFORE_NAMESPACE();
namespace lumora {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

// The result of `sumRows` for column i: Σ rows[k][i] × weight k, as 10.6 fixed point.
inline std::int16_t sumRowsAt(const std::uint8_t* const* rows, const WeightPair* pairs, int taps,
                              std::size_t i) {
  int sum = 1 << 5;
  for (int k = 0; k < taps; ++k) sum += rows[k][i] * pairs[k / 2].exact[k % 2];
  return static_cast<std::int16_t>(sum >> 6);
}

#if HWY_ARCH_X86 && HWY_TARGET <= HWY_SSSE3  // better targets have lower numbers

constexpr hn::ScalableTag<std::uint8_t> dBytes;
constexpr hn::Repartition<std::int16_t, decltype(dBytes)> dSums;
using Sums = hn::Vec<decltype(dSums)>;

// Multiplies bytes with signed bytes, and sums two neighbouring products. Highway 1.0.3 lacks this.
HWY_INLINE Sums multiplyPairs(hn::Vec<decltype(dBytes)> bytes, Sums weights) {
#if HWY_MAX_BYTES == 64
  return {_mm512_maddubs_epi16(bytes.raw, weights.raw)};
#elif HWY_MAX_BYTES == 32
  return {_mm256_maddubs_epi16(bytes.raw, weights.raw)};
#else
  return {_mm_maddubs_epi16(bytes.raw, weights.raw)};
#endif
}

// `low` has the sums for the lower half of each block of 16 columns, `high` those for the upper.
HWY_INLINE void storeInOrder(Sums low, Sums high, std::int16_t* sums) {
#if HWY_MAX_BYTES == 64
  const auto front = _mm512_setr_epi64(0, 1, 8, 9, 2, 3, 10, 11);
  const auto back = _mm512_setr_epi64(4, 5, 12, 13, 6, 7, 14, 15);
  const Sums first{_mm512_permutex2var_epi64(low.raw, front, high.raw)};
  const Sums second{_mm512_permutex2var_epi64(low.raw, back, high.raw)};
#elif HWY_MAX_BYTES == 32
  const Sums first = hn::ConcatLowerLower(dSums, high, low);
  const Sums second = hn::ConcatUpperUpper(dSums, high, low);
#else
  const Sums first = low;
  const Sums second = high;
#endif
  hn::StoreU(first, dSums, sums);
  hn::StoreU(second, dSums, sums + hn::Lanes(dSums));
}

// Multiplies the bytes of two rows at once. A weight is 64 times a coarse weight plus a fine weight
// of -32 to 31. The fine products of four rows are summed before they are shifted, since that sum
// still fits into 16 bits.
HWY_INLINE void sumVector(const std::uint8_t* const* HWY_RESTRICT rows,
                          const WeightPair* HWY_RESTRICT pairs, int taps, std::size_t at,
                          std::int16_t* HWY_RESTRICT sums) {
  const auto round = hn::Set(dSums, 32);
  Sums low = hn::Zero(dSums);
  Sums high = low;
  for (int k = 0; k < taps; k += 4) {
    Sums fineLow = round;
    Sums fineHigh = round;
    for (int pair = k; pair < taps && pair < k + 4; pair += 2) {
      const auto a = hn::LoadU(dBytes, rows[pair] + at);
      const auto b = hn::LoadU(dBytes, rows[pair + 1] + at);
      const auto lower = hn::InterleaveLower(dBytes, a, b);
      const auto upper = hn::InterleaveUpper(dBytes, a, b);
      const Sums coarse = hn::Set(dSums, pairs[pair / 2].coarse);
      const Sums fine = hn::Set(dSums, pairs[pair / 2].fine);
      low = hn::Add(low, multiplyPairs(lower, coarse));
      high = hn::Add(high, multiplyPairs(upper, coarse));
      fineLow = hn::Add(fineLow, multiplyPairs(lower, fine));
      fineHigh = hn::Add(fineHigh, multiplyPairs(upper, fine));
    }
    low = hn::Add(low, hn::ShiftRight<6>(fineLow));
    high = hn::Add(high, hn::ShiftRight<6>(fineHigh));
  }
  storeInOrder(low, high, sums);
}

HWY_INLINE std::size_t vectorStep() { return hn::Lanes(dBytes); }

#else

constexpr hn::ScalableTag<std::int16_t> dSums;

HWY_INLINE void sumVector(const std::uint8_t* const* HWY_RESTRICT rows,
                          const WeightPair* HWY_RESTRICT pairs, int taps, std::size_t at,
                          std::int16_t* HWY_RESTRICT sums) {
  const hn::Rebind<std::uint8_t, decltype(dSums)> d8;
  auto sum = hn::Zero(dSums);
  for (int k = 0; k < taps; ++k) {
    // (v << 7) × (w << 2) >> 15 = v × w >> 6, rounded.
    const auto value = hn::ShiftLeft<7>(hn::PromoteTo(dSums, hn::LoadU(d8, rows[k] + at)));
    const auto weight = static_cast<std::int16_t>(pairs[k / 2].exact[k % 2] << 2);
    sum = hn::Add(sum, hn::MulFixedPoint15(value, hn::Set(dSums, weight)));
  }
  hn::StoreU(sum, dSums, sums);
}

HWY_INLINE std::size_t vectorStep() { return hn::Lanes(dSums); }

#endif

// Sums each of `count` columns, which are one byte wide, over the first `taps` rows. Also
// prefetches the `ahead` rows after them, which the next call needs: a camera's picture is seldom
// in the cache. Without the prefetch, scaling it down from 1920×1080 takes 1.4 to 2.5 times as long
// on x86-64, waiting for memory.
void sumRows(const std::uint8_t* const* HWY_RESTRICT rows, const WeightPair* HWY_RESTRICT pairs,
             int taps, int ahead, std::size_t count, std::int16_t* HWY_RESTRICT sums) {
  const std::size_t step = vectorStep();
  std::size_t i = 0;
  for (; i + step <= count; i += step) {
    for (int k = taps; k < taps + ahead; ++k) hwy::Prefetch(rows[k] + i);
    sumVector(rows, pairs, taps, i, sums + i);
  }
  if (i == count) return;
  if (count >= step) {  // the last vector overlaps the one before it
    sumVector(rows, pairs, taps, count - step, sums + count - step);
    return;
  }
  for (; i < count; ++i) sums[i] = sumRowsAt(rows, pairs, taps, i);
}

// Writes one destination row of `width` pixels of four channels. Each pixel is a weighted sum of
// column sums along x. `weights` has `taps` × 4 values per pixel. With `swap`, the first and the
// third channel are exchanged.
#if HWY_TARGET == HWY_SCALAR
template <bool swap>
HWY_INLINE void sumColumns(const std::int16_t* HWY_RESTRICT sums, const int* HWY_RESTRICT first,
                           const std::int16_t* HWY_RESTRICT weights, int taps, std::size_t width,
                           std::uint8_t* HWY_RESTRICT row) {
  static constexpr std::size_t order[4] = {swap ? 2 : 0, 1, swap ? 0 : 2, 3};
  for (std::size_t x = 0; x < width; ++x) {
    const std::int16_t* from = sums + static_cast<std::size_t>(first[x]) * 4;
    const std::int16_t* weight = weights + x * static_cast<std::size_t>(taps) * 4;
    for (std::size_t channel = 0; channel < 4; ++channel) {
      int sum = 1 << 19;
      for (int k = 0; k < taps; ++k) sum += from[k * 4 + static_cast<int>(channel)] * weight[k * 4];
      sum >>= 20;
      row[x * 4 + order[channel]] =
          static_cast<std::uint8_t>(sum < 0 ? 0 : (sum > 255 ? 255 : sum));
    }
  }
}
#else
template <bool swap>
HWY_INLINE void sumColumns(const std::int16_t* HWY_RESTRICT sums, const int* HWY_RESTRICT first,
                           const std::int16_t* HWY_RESTRICT weights, int taps, std::size_t width,
                           std::uint8_t* HWY_RESTRICT row) {
  // The smallest kernel has 4 taps, each a source pixel of 4 values. So a vector has at most 16
  // lanes.
  const hn::CappedTag<std::int16_t, 16> d;
  const hn::FixedTag<std::int16_t, 8> d128;
  const hn::Repartition<std::int64_t, decltype(d128)> d64;
  const hn::Rebind<std::uint8_t, decltype(d128)> d8;
  const std::size_t lanes = hn::Lanes(d);
  const std::size_t values = static_cast<std::size_t>(taps) * 4;

  // The sum of one pixel in two parts: its even taps in the lower half, its odd taps in the upper.
  const auto partialSum = [&](std::size_t x) HWY_ATTR {
    const std::int16_t* HWY_RESTRICT from = sums + static_cast<std::size_t>(first[x]) * 4;
    const std::int16_t* HWY_RESTRICT weight = weights + x * values;
    auto sum = hn::MulFixedPoint15(hn::LoadU(d, from), hn::LoadU(d, weight));
    for (std::size_t k = lanes; k < values; k += lanes) {
      sum = hn::Add(sum, hn::MulFixedPoint15(hn::LoadU(d, from + k), hn::LoadU(d, weight + k)));
    }
#if HWY_MAX_BYTES >= 32
    return hn::Add(hn::LowerHalf(d128, sum), hn::UpperHalf(d128, sum));
#else
    return sum;
#endif
  };
  const auto ordered = [&](auto pixels) HWY_ATTR {
    if constexpr (!swap) return pixels;
    alignas(16) static constexpr std::uint8_t order[16] = {2, 1, 0, 3, 6, 5, 4, 7,
                                                           2, 1, 0, 3, 6, 5, 4, 7};
    const hn::FixedTag<std::uint8_t, 16> dFull;
    return hn::LowerHalf(
        d8, hn::TableLookupBytes(hn::Combine(dFull, pixels, pixels), hn::Load(dFull, order)));
  };
  // The sums have 5 bits of fraction: column sums have 6 and weights 14, and MulFixedPoint15
  // removes 15.
  const auto pixelPair = [&](std::size_t x, std::size_t next) HWY_ATTR {
    const auto a = hn::BitCast(d64, partialSum(x));
    const auto b = hn::BitCast(d64, partialSum(next));
    const auto both = hn::Add(hn::BitCast(d128, hn::InterleaveLower(d64, a, b)),
                              hn::BitCast(d128, hn::InterleaveUpper(d64, a, b)));
    const auto rounded = hn::ShiftRight<5>(hn::Add(both, hn::Set(d128, 16)));
    return ordered(hn::DemoteTo(d8, rounded));
  };
  std::size_t x = 0;
  for (; x + 2 <= width; x += 2) hn::StoreU(pixelPair(x, x + 1), d8, row + x * 4);
  if (x < width) {
    alignas(16) std::uint8_t pair[8];
    hn::Store(pixelPair(x, x), d8, pair);
    for (std::size_t channel = 0; channel < 4; ++channel) row[x * 4 + channel] = pair[channel];
  }
}

#endif

// Writes one destination row of RGB pixels, with red and blue exchanged.
void sumPixels(const std::int16_t* sums, const int* first, const std::int16_t* weights, int taps,
               std::size_t width, std::uint8_t* row) {
  sumColumns<true>(sums, first, weights, taps, width, row);
}

// Interleaves the column sums of four rows of one channel, or of two rows of two channels. The
// result is like the sums of one row of four channels. Writes beyond the last sample.
template <int channels>
HWY_INLINE void interleave(const RowGroup& group) {
  const hn::ScalableTag<std::int16_t> d;
  using Values = hn::Vec<decltype(d)>;
  const std::int16_t* HWY_RESTRICT from = group.sums;
  for (std::size_t x = 0; x < group.sourceWidth; x += hn::Lanes(d)) {
    Values first, second, third, fourth;
    if constexpr (channels == 1) {
      first = hn::LoadU(d, from + x);
      second = hn::LoadU(d, from + group.pitch + x);
      third = hn::LoadU(d, from + 2 * group.pitch + x);
      fourth = hn::LoadU(d, from + 3 * group.pitch + x);
    } else {
      hn::LoadInterleaved2(d, from + 2 * x, first, second);
      hn::LoadInterleaved2(d, from + group.pitch + 2 * x, third, fourth);
    }
    hn::StoreInterleaved4(first, second, third, fourth, d, group.interleaved + 4 * x);
  }
}

// Writes the destination rows of a group from its pixels of four channels.
template <int channels>
HWY_INLINE void split(const RowGroup& group, std::size_t width) {
  const hn::ScalableTag<std::uint8_t> d;
  using Values = hn::Vec<decltype(d)>;
  const std::size_t step = hn::Lanes(d);
  const auto& to = group.destination;
  const auto splitAt = [&](std::size_t x) HWY_ATTR {
    Values first, second, third, fourth;
    hn::LoadInterleaved4(d, group.pixels + 4 * x, first, second, third, fourth);
    if constexpr (channels == 1) {
      hn::StoreU(first, d, to[0] + x);
      if (group.rows > 1) hn::StoreU(second, d, to[1] + x);
      if (group.rows > 2) hn::StoreU(third, d, to[2] + x);
      if (group.rows > 3) hn::StoreU(fourth, d, to[3] + x);
    } else {
      hn::StoreInterleaved2(first, second, d, to[0] + 2 * x);
      if (group.rows > 1) hn::StoreInterleaved2(third, fourth, d, to[1] + 2 * x);
    }
  };
  std::size_t x = 0;
  for (; x + step <= width; x += step) splitAt(x);
  if (x < width && width >= step) return splitAt(width - step);  // overlaps the last step
  for (; x < width; ++x) {
    for (std::size_t channel = 0; channel < group.rows * channels; ++channel)
      to[channel / channels][x * channels + channel % channels] = group.pixels[4 * x + channel];
  }
}

void sumFourRows(const RowGroup& group, const int* first, const std::int16_t* weights, int taps,
                 std::size_t width) {
  interleave<1>(group);
  sumColumns<false>(group.interleaved, first, weights, taps, width, group.pixels);
  split<1>(group, width);
}
void sumTwoRows(const RowGroup& group, const int* first, const std::int16_t* weights, int taps,
                std::size_t width) {
  interleave<2>(group);
  sumColumns<false>(group.interleaved, first, weights, taps, width, group.pixels);
  split<2>(group, width);
}

}  // namespace HWY_NAMESPACE
}  // namespace lumora
HWY_AFTER_NAMESPACE();

#if HWY_ONCE

#include <algorithm>

namespace lumora {
namespace {

HWY_EXPORT(sumRows);
HWY_EXPORT(sumPixels);
HWY_EXPORT(sumFourRows);
HWY_EXPORT(sumTwoRows);

// Spare values, since vectors of up to 512 bits reach beyond the last sample.
constexpr int lanesOfSlack = 128;

// Two signed bytes as a word, the first in the lower byte.
std::int16_t packed(int first, int second) {
  return static_cast<std::int16_t>((first & 0xFF) | (second & 0xFF) << 8);
}

WeightPair makePair(std::int16_t first, std::int16_t second) {
  const auto coarse = [](int weight) { return (weight + 32) >> 6; };
  const auto fine = [&](int weight) { return weight - coarse(weight) * 64; };
  return {
      {first, second}, packed(coarse(first), coarse(second)), packed(fine(first), fine(second))};
}

}  // namespace

Resampler::Resampler(const PlaneGeometry& geometry)
    : geometry_(geometry),
      // The horizontal step takes 4 pixels at once, the vertical one 2 rows.
      horizontal_(makeResampleAxis(geometry.x, 4)),
      vertical_(makeResampleAxis(geometry.y, 2)) {
  pairs_.reserve(vertical_.weights.size() / 2);
  for (std::size_t k = 0; k < vertical_.weights.size(); k += 2) {
    pairs_.push_back(makePair(vertical_.weights[k], vertical_.weights[k + 1]));
  }
  pixelWeights_.reserve(horizontal_.weights.size() * 4);
  for (const std::int16_t weight : horizontal_.weights) {
    pixelWeights_.insert(pixelWeights_.end(), 4, static_cast<std::int16_t>(weight << 2));
  }
}

// Column sums of destination row `y`. Prefetches what the row after it needs.
void Resampler::sumRow(SourceRows rows, std::int64_t y, std::int16_t* sums) const {
  const auto index = static_cast<std::size_t>(y);
  const int first = vertical_.first[index];
  const bool isLast = y + 1 == geometry_.y.destination;
  const int ahead = isLast ? 0 : vertical_.first[index + 1] - first;
  HWY_DYNAMIC_DISPATCH(sumRows)
  (rows + first, pairs_.data() + index * static_cast<std::size_t>(vertical_.taps) / 2,
   vertical_.taps, ahead, static_cast<std::size_t>(geometry_.x.source * geometry_.channels), sums);
}

void Resampler::run(PlaneView source, Plane destination) const {
  // Taps beyond the last row have no weight, but are read.
  std::vector<const std::uint8_t*> rows(
      static_cast<std::size_t>(geometry_.y.source + vertical_.taps));
  for (std::size_t i = 0; i < rows.size(); ++i) {
    const auto row = std::min(static_cast<std::int64_t>(i), geometry_.y.source - 1);
    rows[i] = source.samples + row * source.stride;
  }
  const auto columns = static_cast<std::size_t>(geometry_.x.source + horizontal_.taps);
  std::vector<std::int16_t> sums(columns * 4 + lanesOfSlack);
  geometry_.channels == 4 ? runPixels(rows.data(), destination, sums.data())
                          : runGroups(rows.data(), destination, sums.data());
}

// Resamples row by row. `sums` has room for a row of four channels.
void Resampler::runPixels(SourceRows rows, Plane destination, std::int16_t* sums) const {
  for (std::int64_t y = 0; y < geometry_.y.destination; ++y) {
    sumRow(rows, y, sums);
    HWY_DYNAMIC_DISPATCH(sumPixels)
    (sums, horizontal_.first.data(), pixelWeights_.data(), horizontal_.taps,
     static_cast<std::size_t>(geometry_.x.destination),
     destination.samples + y * destination.stride);
  }
}

// Resamples rows in groups: four rows of one channel or two of two channels. `interleaved` has room
// for a row of four channels.
void Resampler::runGroups(SourceRows rows, Plane destination, std::int16_t* interleaved) const {
  const auto width = static_cast<std::size_t>(geometry_.x.destination);
  const auto sourceWidth = static_cast<std::size_t>(geometry_.x.source);
  const auto channels = static_cast<std::size_t>(geometry_.channels);
  const std::size_t rowsAtOnce = 4 / channels;
  std::vector<std::int16_t> sums(rowsAtOnce * sourceWidth * channels + lanesOfSlack);
  std::vector<std::uint8_t> pixels(width * 4);
  RowGroup group{.sums = sums.data(),
                 .pitch = sourceWidth * channels,
                 .sourceWidth = sourceWidth,
                 .interleaved = interleaved,
                 .pixels = pixels.data()};
  const auto sumGroup =
      channels == 1 ? &HWY_DYNAMIC_DISPATCH(sumFourRows) : &HWY_DYNAMIC_DISPATCH(sumTwoRows);
  for (std::int64_t y = 0; y < geometry_.y.destination;
       y += static_cast<std::int64_t>(group.rows)) {
    group.rows = std::min(rowsAtOnce, static_cast<std::size_t>(geometry_.y.destination - y));
    for (std::size_t i = 0; i < group.rows; ++i) {
      const std::int64_t row = y + static_cast<std::int64_t>(i);
      sumRow(rows, row, sums.data() + i * group.pitch);
      group.destination[i] = destination.samples + row * destination.stride;
    }
    sumGroup(group, horizontal_.first.data(), pixelWeights_.data(), horizontal_.taps, width);
  }
}

}  // namespace lumora

#endif  // HWY_ONCE
