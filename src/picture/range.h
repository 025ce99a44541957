#pragma once

// Full to limited range (ITU-T H.273: VideoFullRangeFlag 1 to 0).

#include "platform/image.h"

namespace lumora {

enum class SampleKind { luma, chroma };

// Converts `rows` rows. Each has `bytes` samples of one byte. Results are rounded to the nearest.
// `source` and `destination` may be the same plane. Any thread.
void compressRange(PlaneView source, Plane destination, std::int64_t bytes, std::int64_t rows,
                   SampleKind kind);

}  // namespace lumora
