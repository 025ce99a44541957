#pragma once

#include "base/bytes.h"
#include "platform/sample.h"

namespace lumora {

// A sequence parameter set, a NAL unit, whose usability information (ISO/IEC 14496-10, E.2.1) says
// what holds for every stream of ours: that frames come in the order in which they are shown, or
// else decoders wait for more of them before they show any, and what its colours are, unless it
// says that by itself. The set as it is where it can't be understood. Pure.
Bytes withUsabilityInformation(ByteView unit, const ColourDescription& colour);

}  // namespace lumora
