#pragma once

#include "base/bytes.h"

namespace lumora {

// A sequence parameter set, a NAL unit, that says what holds for every stream of ours: that frames
// come in the order in which they are shown. Decoders that are not told (`bitstream_restriction` of
// its usability information, ISO/IEC 14496-10, E.2.1) wait for more of them before they show any.
// The set itself where it says so already, or where it can't be understood. Pure.
Bytes declaringNoReordering(ByteView unit);

}  // namespace lumora
