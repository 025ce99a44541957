#pragma once

#include "base/bytes.h"
#include "platform/sample.h"

namespace lumora {

// Completes a sequence parameter set, a NAL unit, with usability information (ISO/IEC 14496-10,
// E.2.1). The result says that frames come in display order. Without that, decoders wait for later
// frames before they show one. The result also has `colour`, unless the set already describes
// colours. A set that can't be parsed is returned unchanged. Pure.
Bytes withUsabilityInformation(ByteView unit, const ColourDescription& colour);

}  // namespace lumora
