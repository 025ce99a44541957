#pragma once

#include <memory>

#include "platform/frame_memory.h"

namespace lumora {

// Maps the memory behind an inherited descriptor. Null unless it is at least two pages of readable
// and writable memory that is sealed against shrinking (F_SEAL_SHRINK), since whoever shrinks it
// could raise SIGBUS in us. Standard streams are refused.
std::shared_ptr<FrameMemory> inheritFrameMemory(int descriptor);

}  // namespace lumora
