#pragma once

#include "platform/image.h"

namespace lumora {

// The size at which a camera picture is encoded for the preview: fitted into `preview`, never
// enlarged, with even sides. When `exact` and only the rounding makes a difference: `preview`.
PictureSize previewEncodeSize(PictureSize camera, PictureSize preview, bool exact);

// The largest rectangle in `buffer` with the proportions of the camera picture, centred.
PictureRectangle fitRectangle(PictureSize camera, PictureSize buffer);

}  // namespace lumora
