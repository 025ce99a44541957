#pragma once

// Separable, anti-aliased resampling of four-channel pictures: a cubic kernel, widened by the
// scale when scaling down so that nothing above the destination's Nyquist frequency folds back.
//
// Each destination row is made in two steps: the source rows it needs are summed, column by
// column, into one row of 16-bit values; then that row is summed along x. Every source byte is
// read a few times while it is in cache, and nothing larger than two rows is kept. Arithmetic is
// fixed-point, SIMD chosen at run time.

#include <cstdint>
#include <vector>

#include "platform/image.h"

namespace lumora {

// The weights of one axis: destination position i is the sum of `taps` source positions from
// `first[i]` on, weighted by `weights[i * taps ...]`, which add up to 1.
struct ResampleAxis {
  int taps = 0;
  std::vector<int> first;
  std::vector<std::int16_t> weights;  // 1.0 is 1 << 12
};

// Weights of two neighbouring source rows, also taken apart (weight = 64 × coarse + fine) into
// signed bytes, two in a word.
struct WeightPair {
  std::int16_t exact[2];
  std::int16_t coarse;
  std::int16_t fine;
};

ResampleAxis makeResampleAxis(int source, int destination, int tapMultiple);

class Resampler {
 public:
  static constexpr std::int64_t maximumSide = 16384;  // pixels

  // Tables for this pair of sizes.
  Resampler(const ImageView& source, const MutableImageView& destination);

  bool matches(const ImageView& source, const MutableImageView& destination) const;

  // What one thread needs besides; it grows to what the resampler needs.
  struct Workspace {
    std::vector<std::int16_t> columnSums;   // one source-wide row
    std::vector<const std::uint8_t*> rows;  // the source rows of one destination row
  };

  // Resamples RGBA into BGRA and turns the picture upside down.
  void run(const ImageView& source, const MutableImageView& destination,
           Workspace& workspace) const;

 private:
  std::int64_t sourceWidth_;
  std::int64_t sourceHeight_;
  std::int64_t width_;
  std::int64_t height_;
  ResampleAxis horizontal_;
  ResampleAxis vertical_;
  std::vector<WeightPair> pairs_;           // `vertical_.weights`
  std::vector<std::int16_t> pixelWeights_;  // `horizontal_.weights` × 4, four of each
};

}  // namespace lumora
