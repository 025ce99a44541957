#pragma once

#include "platform/image.h"

namespace lumora {

// The size at which a camera picture is encoded for the preview. The picture is fitted into
// `preview` and never enlarged. The fitted sides are rounded down to even numbers, but not below 2.
// With `exact`, the size is `preview` itself if two conditions hold: the camera picture is at least
// as wide and as high as `preview`, and each rounded side differs from that of `preview` by 2
// pixels at most.
PictureSize previewEncodeSize(PictureSize camera, PictureSize preview, bool exact);

// The largest rectangle in `buffer` with the proportions of the camera picture, centred.
PictureRectangle fitRectangle(PictureSize camera, PictureSize buffer);

}  // namespace lumora
