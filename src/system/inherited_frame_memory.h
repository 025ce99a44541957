#pragma once

#include <memory>

#include "platform/frame_memory.h"

namespace lumora {

// The memory behind a descriptor that we have inherited; null unless it is a file of at least two
// pages that we may read and write. Memory that nobody can shrink (F_SEAL_SHRINK) is mapped, since
// only then no one can raise SIGBUS in us; any other file is read. Throws std::system_error where
// it can't be mapped.
std::shared_ptr<FrameMemory> inheritFrameMemory(int descriptor);

}  // namespace lumora
