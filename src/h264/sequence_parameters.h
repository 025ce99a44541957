#pragma once

#include "base/bytes.h"
#include "platform/sample.h"

namespace lumora {

// Adds usability information (ISO/IEC 14496-10, E.2.1) to `unit`, the NAL unit of a sequence
// parameter set. The result says that frames come in display order. A decoder that is not told so
// waits for later frames before it shows a frame. The result also has `colour`, unless the set
// already describes colours. A set that can't be parsed is returned unchanged. Pure.
Bytes withUsabilityInformation(ByteView unit, const ColourDescription& colour);

}  // namespace lumora
