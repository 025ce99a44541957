#pragma once

// Full to limited range (ITU-T H.273: VideoFullRangeFlag 1 to 0).

#include "platform/image.h"

namespace lumora {

enum class SampleKind { luma, chroma };

// Converts `rows` rows of `bytes` samples, rounded to the nearest. Both planes may be the same.
// Any thread.
void compressRange(PlaneView source, Plane destination, std::int64_t bytes, std::int64_t rows,
                   SampleKind kind);

}  // namespace lumora
