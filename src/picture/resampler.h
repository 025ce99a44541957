#pragma once

// Separable, anti-aliased resampling of planes with a cubic kernel. When scaling
// down, the kernel is widened by the scale, so that nothing above the destination's Nyquist
// frequency folds back.
//
// Each destination row is made in two steps. First the source rows that it needs are summed, column
// by column, into one row of 16-bit values; then that row is summed along x. So every source byte
// is read while it is in cache, and only one row is stored in between. Arithmetic is in fixed
// point, with SIMD chosen at run time.

#include "picture/resample_axis.h"
#include "platform/image.h"

namespace lumora {

// The weights of two neighbouring source rows. For SIMD each is also split (64 × coarse + fine)
// into signed bytes, with both rows' bytes in one word.
struct WeightPair {
  std::int16_t exact[2];
  std::int16_t coarse;
  std::int16_t fine;
};

struct PlaneGeometry {
  int channels = 1;  // bytes of a sample: 1, 2 or 4
  SampleGrid x;
  SampleGrid y;
  bool operator==(const PlaneGeometry&) const = default;
};

// Four rows of one channel or two rows of two, interleaved so that they are summed along x like one
// row of four channels.
struct RowGroup {
  const std::int16_t* sums;  // column sums of all rows
  std::size_t pitch;         // from one row's sums to the next
  std::size_t sourceWidth;   // samples
  std::int16_t* interleaved;
  std::uint8_t* pixels;
  std::size_t rows = 0;  // that are written
  std::uint8_t* destination[4] = {};
};

class Resampler {
 public:
  explicit Resampler(const PlaneGeometry& geometry);
  const PlaneGeometry& geometry() const { return geometry_; }

  // Resamples a plane. Of four channels, the first and the third change places: RGBA becomes BGRA.
  // Any thread.
  void run(PlaneView source, Plane destination) const;

 private:
  void runPixels(PlaneView source, Plane destination, std::int16_t* sums) const;
  void runGroups(PlaneView source, Plane destination, std::int16_t* interleaved) const;
  void sumRow(PlaneView source, std::int64_t y, std::int16_t* sums) const;

  PlaneGeometry geometry_;
  ResampleAxis horizontal_;
  ResampleAxis vertical_;
  std::vector<WeightPair> pairs_;           // `vertical_.weights`
  std::vector<std::int16_t> pixelWeights_;  // `horizontal_.weights` × 4, four of each
};

}  // namespace lumora
