#pragma once

// Separable, anti-aliased resampling of planes with a cubic kernel. When scaling down, the kernel
// is widened by the scale. That removes frequencies above the destination's Nyquist frequency.
//
// Each destination row is made in two steps. First the source rows that it needs are summed, column
// by column, into one row of 16-bit values. Then that row is summed along x. Destination rows are
// made in order, one row or one `RowGroup` at a time. So most source rows that the next one needs
// are still in cache. Between the two steps, only the sums of one row or of one `RowGroup` are
// stored. Arithmetic is in fixed point, with SIMD chosen at run time.

#include "picture/resample_axis.h"
#include "platform/image.h"

namespace lumora {

// The weights of two neighbouring source rows. For SIMD on x86, each weight is also split into two
// signed bytes: weight = 64 × coarse byte + fine byte. `coarse` has the coarse bytes of both rows,
// `fine` their fine bytes.
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

// Four rows of one channel or two rows of two channels. They are interleaved and then summed along
// x like one row of four channels.
struct RowGroup {
  const std::int16_t* sums;  // column sums of all rows
  std::size_t pitch;         // values from one row's sums to the next row's
  std::size_t sourceWidth;   // samples
  std::int16_t* interleaved;
  std::uint8_t* pixels;
  std::size_t rows = 0;  // rows to write; the last group of a plane may have fewer
  std::uint8_t* destination[4] = {};
};

class Resampler {
 public:
  explicit Resampler(const PlaneGeometry& geometry);
  const PlaneGeometry& geometry() const { return geometry_; }

  // Resamples a plane. If it has four channels, the first and the third are exchanged: RGBA becomes
  // BGRA. Any thread.
  void run(PlaneView source, Plane destination) const;

 private:
  using SourceRows = const std::uint8_t* const*;  // beyond the last row: the last row again

  void runPixels(SourceRows rows, Plane destination, std::int16_t* sums) const;
  void runGroups(SourceRows rows, Plane destination, std::int16_t* interleaved) const;
  void sumRow(SourceRows rows, std::int64_t y, std::int16_t* sums) const;

  PlaneGeometry geometry_;
  ResampleAxis horizontal_;
  ResampleAxis vertical_;
  std::vector<WeightPair> pairs_;           // `vertical_.weights`, two in each pair
  std::vector<std::int16_t> pixelWeights_;  // `horizontal_.weights` × 4, one copy per channel
};

}  // namespace lumora
