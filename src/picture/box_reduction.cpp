#include "picture/box_reduction.h"

#include <algorithm>
#include <array>
#include <vector>

namespace lumora {
namespace {

constexpr std::int64_t strongFactor = 8;

struct Range {
  std::int64_t from;
  std::int64_t to;
};

// The source positions of destination position `i`; never none.
Range boxOf(std::int64_t i, std::int64_t source, std::int64_t destination) {
  const std::int64_t from = i * source / destination;
  return {from, std::max((i + 1) * source / destination, from + 1)};
}

void addRow(std::vector<std::uint32_t>& sums, const std::uint8_t* row) {
  for (std::size_t i = 0; i < sums.size(); ++i) sums[i] += row[i];
}

// Boxes of one destination row, from the sums of its source rows.
void averageRow(const std::vector<std::uint32_t>& sums, std::int64_t rows, std::int64_t sourceWidth,
                std::int64_t width, std::uint8_t* to) {
  static constexpr std::array<std::size_t, 4> swapped = {2, 1, 0, 3};
  for (std::int64_t x = 0; x < width; ++x) {
    const Range columns = boxOf(x, sourceWidth, width);
    const auto count = static_cast<std::uint64_t>((columns.to - columns.from) * rows);
    for (std::size_t channel = 0; channel < 4; ++channel) {
      std::uint64_t sum = count / 2;
      for (std::int64_t column = columns.from; column < columns.to; ++column) {
        sum += sums[static_cast<std::size_t>(column) * 4 + channel];
      }
      to[x * 4 + static_cast<std::int64_t>(swapped[channel])] =
          static_cast<std::uint8_t>(sum / count);
    }
  }
}

}  // namespace

bool isStrongReduction(const ImageView& source, const MutableImageView& destination) {
  return source.width > destination.width * strongFactor ||
         source.height > destination.height * strongFactor;
}

void averageBoxes(const ImageView& source, const MutableImageView& destination) {
  std::vector<std::uint32_t> sums(static_cast<std::size_t>(source.width) * 4);
  for (std::int64_t y = 0; y < destination.height; ++y) {
    std::ranges::fill(sums, 0U);
    const Range rows = boxOf(y, source.height, destination.height);
    for (std::int64_t row = rows.from; row < rows.to; ++row) {
      addRow(sums, source.pixels + row * source.stride);
    }
    averageRow(sums, rows.to - rows.from, source.width, destination.width,
               destination.pixels + (destination.height - 1 - y) * destination.stride);
  }
}

}  // namespace lumora
