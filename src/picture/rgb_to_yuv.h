#pragma once

// RGB to the 4:2:0 planes that encoders take, with BT.709's matrix in limited range (ITU-T H.273:
// MatrixCoefficients 1, VideoFullRangeFlag 0). Each chroma sample belongs to 2x2 pixels. It lies
// where H.264 has it by default: in their left column, and halfway between their two rows.
// Arithmetic is in fixed point and gives the same samples on every machine.

#include "platform/image.h"

namespace lumora {

// `source` is RGBA or BGRA. Any thread.
void convertToI420(const PictureView& source, Plane y, Plane u, Plane v);
void convertToNV12(const PictureView& source, Plane y, Plane uv);

}  // namespace lumora
