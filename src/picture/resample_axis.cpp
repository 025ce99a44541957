#include "picture/resample_axis.h"

#include <algorithm>
#include <cmath>
#include <cstddef>

namespace lumora {
namespace {

constexpr int weightOne = 1 << 12;
constexpr double kernelSupport = 2;

// Catmull-Rom: sharp, with little ringing.
double kernel(double x) {
  x = std::abs(x);
  if (x < 1) return (1.5 * x - 2.5) * x * x + 1;
  if (x < 2) return ((-0.5 * x + 2.5) * x - 4) * x + 2;
  return 0;
}

int roundUp(int value, int multiple) { return (value + multiple - 1) / multiple * multiple; }

// Converts the weights of one destination sample to fixed point. The largest weight takes the
// rounding error, so all of them add up to exactly 1.
void quantise(const std::vector<double>& exact, std::int16_t* weights) {
  double total = 0;
  for (const double weight : exact) total += weight;
  int sum = 0;
  std::size_t largest = 0;
  for (std::size_t k = 0; k < exact.size(); ++k) {
    const auto rounded = static_cast<std::int16_t>(std::lround(exact[k] / total * weightOne));
    weights[k] = rounded;
    sum += rounded;
    if (exact[k] > exact[largest]) largest = k;
  }
  weights[largest] = static_cast<std::int16_t>(weights[largest] + weightOne - sum);
}

}  // namespace

ResampleAxis makeResampleAxis(const SampleGrid& grid, int tapMultiple) {
  const int source = static_cast<int>(grid.source);
  const int destination = static_cast<int>(grid.destination);
  const double width = std::max(grid.step, 1.0);  // source samples per unit of the kernel
  const double reach = kernelSupport * width;
  ResampleAxis axis;
  const int needed = std::min(static_cast<int>(std::ceil(2 * reach)), source);
  axis.taps = roundUp(needed, tapMultiple);
  axis.first.resize(static_cast<std::size_t>(destination));
  axis.weights.resize(axis.first.size() * static_cast<std::size_t>(axis.taps));
  std::vector<double> exact;
  for (int i = 0; i < destination; ++i) {
    const double centre = i * grid.step + grid.origin;
    const int from = static_cast<int>(std::floor(centre - reach)) + 1;
    const int to = static_cast<int>(std::ceil(centre + reach)) - 1;
    const int first = std::clamp(from, 0, source - needed);
    exact.assign(static_cast<std::size_t>(axis.taps), 0.0);
    for (int position = from; position <= to; ++position) {
      // Positions beyond the edge repeat the sample at the edge. It also gets their weights.
      const int inside = std::clamp(position, 0, source - 1);
      const int tap = std::clamp(inside - first, 0, needed - 1);
      exact[static_cast<std::size_t>(tap)] += kernel((position - centre) / width);
    }
    axis.first[static_cast<std::size_t>(i)] = first;
    quantise(exact, axis.weights.data() + std::ptrdiff_t{i} * axis.taps);
  }
  return axis;
}

}  // namespace lumora
