#pragma once

// The entries of `stsd`: what a decoder must know of a track. Pure.

#include "platform/sample.h"

namespace lumora {

// Appends `avc1`, for a track of pictures.
void pictureEntry(Bytes& bytes, const FormatDescription& format);

}  // namespace lumora
