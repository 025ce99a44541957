#pragma once

// The entries of `stsd`: what a decoder must know of a track. Pure.

#include "platform/movie_writer.h"

namespace lumora {

// Appends `avc1`, for a track of pictures.
void pictureEntry(Bytes& bytes, const FormatDescription& format);
// Appends `mp4a`, for a track of sound.
void soundEntry(Bytes& bytes, const AacFormat& format);

}  // namespace lumora
