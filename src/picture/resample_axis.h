#pragma once

// The weights of a resampled axis. Pure.

#include <cstdint>
#include <vector>

namespace lumora {

// The samples along one axis of a plane. Destination sample i lies at source position
// origin + i × step.
struct SampleGrid {
  std::int64_t source = 0;       // samples
  std::int64_t destination = 0;  // samples
  double step = 1;
  double origin = 0;
  bool operator==(const SampleGrid&) const = default;
};

// The weights of one axis. Destination sample i is the weighted sum of `taps` source samples from
// `first[i]` on. Their weights, from `weights[i * taps]` on, add up to 1.
struct ResampleAxis {
  int taps = 0;
  std::vector<int> first;
  std::vector<std::int16_t> weights;  // 1.0 is 1 << 12
};

// The number of taps is a multiple of `tapMultiple`. Taps that are not needed have the weight 0.
ResampleAxis makeResampleAxis(const SampleGrid& grid, int tapMultiple);

}  // namespace lumora
