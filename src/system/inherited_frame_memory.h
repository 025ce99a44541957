#pragma once

#include <memory>

#include "base/picture_memory.h"
#include "platform/frame_memory.h"

namespace lumora {

// The memory behind a descriptor that we have inherited, with nothing released yet; null unless it
// is a file of at least two pages that we may read and write anywhere, and no standard stream.
// Memory that nobody can shrink (F_SEAL_SHRINK) is mapped, since only then no one can raise SIGBUS
// in us; any other file is read into pictures of ours.
std::shared_ptr<FrameMemory> inheritFrameMemory(int descriptor,
                                                std::shared_ptr<PicturePool> pictures);

}  // namespace lumora
