#pragma once

#include "platform/image.h"

namespace lumora {

// Fills `destination`, the 4:2:0 picture in limited range that an encoder takes, with `source`, a
// picture of the same size in any format. Any thread.
void fillEncoderPicture(const PictureView& source, const Picture& destination);

}  // namespace lumora
