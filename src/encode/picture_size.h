#pragma once

#include "platform/image.h"

namespace lumora {

// The size at which a camera picture is encoded for the preview. The picture is fitted into
// `preview` and never enlarged. Its sides are rounded to even numbers. With `exact`, a size that
// differs from `preview` only by rounding becomes `preview`.
PictureSize previewEncodeSize(PictureSize camera, PictureSize preview, bool exact);

// The largest rectangle in `buffer` with the proportions of the camera picture, centred.
PictureRectangle fitRectangle(PictureSize camera, PictureSize buffer);

}  // namespace lumora
