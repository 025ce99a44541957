#pragma once

// Splits a byte stream with start codes (00 00 01 or 00 00 00 01 before every NAL unit) into its
// NAL units. Pure.

#include <vector>

#include "base/bytes.h"

namespace lumora {

// The NAL units of `stream`, without start codes; they point into it.
std::vector<ByteView> splitAnnexB(ByteView stream);

// Appends `unit` behind its length as 4 big-endian bytes.
void appendLengthPrefixed(Bytes& sample, ByteView unit);

}  // namespace lumora
