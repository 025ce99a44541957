#include "encode/picture_size.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

namespace lumora {
namespace {

double ratio(std::int64_t numerator, std::int64_t denominator) {
  return static_cast<double>(numerator) / static_cast<double>(denominator);
}

std::int64_t scaledEven(std::int64_t size, double scale) {
  const auto truncated = static_cast<std::int64_t>(static_cast<double>(size) * scale);
  return std::max<std::int64_t>(truncated - truncated % 2, 2);
}

bool differsByRounding(std::int64_t first, std::int64_t second) {
  return std::abs(first - second) <= 2;
}

}  // namespace

PictureSize previewEncodeSize(PictureSize camera, PictureSize preview, bool exact) {
  const double scale =
      std::min({ratio(preview.width, camera.width), ratio(preview.height, camera.height), 1.0});
  const PictureSize fitted{scaledEven(camera.width, scale), scaledEven(camera.height, scale)};
  const bool large = camera.width >= preview.width && camera.height >= preview.height;
  if (exact && large && differsByRounding(fitted.width, preview.width) &&
      differsByRounding(fitted.height, preview.height)) {
    return preview;
  }
  return fitted;
}

PictureRectangle fitRectangle(PictureSize camera, PictureSize buffer) {
  const double scale =
      std::min(ratio(buffer.width, camera.width), ratio(buffer.height, camera.height));
  const auto fitted = [scale](std::int64_t size, std::int64_t limit) {
    const auto rounded = static_cast<std::int64_t>(std::round(static_cast<double>(size) * scale));
    return std::clamp<std::int64_t>(rounded, 1, limit);
  };
  const PictureSize size{fitted(camera.width, buffer.width), fitted(camera.height, buffer.height)};
  return {(buffer.width - size.width) / 2, (buffer.height - size.height) / 2, size};
}

}  // namespace lumora
