#pragma once

#include "platform/image.h"

namespace lumora {

// Converts `source`, in any format, to the format of an encoder: `destination` is 4:2:0 in limited
// range. Both pictures have the same size. Any thread.
void fillEncoderPicture(const PictureView& source, const Picture& destination);

}  // namespace lumora
