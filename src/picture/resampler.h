#pragma once

// Separable, anti-aliased resampling of four-channel pictures with a cubic kernel. When scaling
// down, the kernel is widened by the scale, so that nothing above the destination's Nyquist
// frequency folds back.
//
// Each destination row is made in two steps. First the source rows that it needs are summed, column
// by column, into one row of 16-bit values; then that row is summed along x. So every source byte
// is read while it is in cache, and only one row is stored in between. Arithmetic is in fixed
// point, with SIMD chosen at run time.

#include <cstdint>
#include <vector>

#include "platform/image.h"

namespace lumora {

// The weights of one axis. Destination position i is the sum of `taps` source positions from
// `first[i]` on. Their weights, from `weights[i * taps]` on, add up to 1.
struct ResampleAxis {
  int taps = 0;
  std::vector<int> first;
  std::vector<std::int16_t> weights;  // 1.0 is 1 << 12
};

// The weights of two neighbouring source rows. For SIMD each is also split (64 × coarse + fine)
// into signed bytes, with both rows' bytes in one word.
struct WeightPair {
  std::int16_t exact[2];
  std::int16_t coarse;
  std::int16_t fine;
};

class Resampler {
 public:
  // Tables for this pair of sizes.
  Resampler(const ImageView& source, const MutableImageView& destination);

  bool matches(const ImageView& source, const MutableImageView& destination) const;

  // Resamples RGBA into BGRA and turns the picture upside down. Any thread.
  void run(const ImageView& source, const MutableImageView& destination) const;

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
