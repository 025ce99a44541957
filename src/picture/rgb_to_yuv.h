#pragma once

// RGB to what encoders take: 4:2:0 planes with BT.709's matrix in limited range (ITU-T H.273:
// MatrixCoefficients 1, VideoFullRangeFlag 0). Chroma lies where H.264 has it by default, level
// with the left of its two columns and halfway between its two rows. An odd last column or row
// stands for the one that is missing. Arithmetic is fixed-point and the same on every machine.

#include "platform/image.h"

namespace lumora {

struct Plane {
  std::uint8_t* samples = nullptr;
  std::ptrdiff_t stride = 0;  // bytes from one row to the next
};

// Any thread.
void convertToI420(const ImageView& source, ChannelOrder order, Plane y, Plane u, Plane v);
void convertToNV12(const ImageView& source, ChannelOrder order, Plane y, Plane uv);

}  // namespace lumora
