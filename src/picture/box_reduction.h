#pragma once

// Reduction of pictures to a small fraction of their size, where a kernel as wide as the resampler
// would need has weights too small for its fixed point: each destination pixel is the mean of its
// box of source pixels.

#include "platform/image.h"

namespace lumora {

bool isStrongReduction(const ImageView& source, const MutableImageView& destination);

// RGBA to BGRA, turned upside down. Any thread.
void averageBoxes(const ImageView& source, const MutableImageView& destination);

}  // namespace lumora
