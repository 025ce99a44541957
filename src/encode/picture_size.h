#pragma once

#include <cstdint>

namespace lumora {

struct PictureSize {
  std::int64_t width = 0;   // pixels
  std::int64_t height = 0;  // pixels
  bool operator==(const PictureSize&) const = default;
};

// The size at which a camera picture is encoded for the preview: fitted into `preview`, never
// enlarged, with even sides. When `exact` and only the rounding makes a difference: `preview`.
PictureSize previewEncodeSize(PictureSize camera, PictureSize preview, bool exact);

struct PictureRectangle {
  std::int64_t left = 0;
  std::int64_t top = 0;
  PictureSize size;
  bool operator==(const PictureRectangle&) const = default;
};

// The largest rectangle in `buffer` with the proportions of the camera picture, centred.
PictureRectangle fitRectangle(PictureSize camera, PictureSize buffer);

}  // namespace lumora
