#pragma once

// H.264 as FLV. Like the helper's packets, FLV has NAL units after their lengths. Adobe Flash Video
// File Format, version 10.1, annex E. Pure.

#include <cstdint>
#include <vector>

#include <lumora/packets.h>

namespace lumora::tools {

// The bytes before the first tag.
std::vector<std::uint8_t> flvHeader();

// The packet as a tag. A configuration becomes the decoder's configuration record. Throws
// std::runtime_error if it is malformed.
std::vector<std::uint8_t> flvTag(const client::Packet& packet, std::uint32_t milliseconds);

}  // namespace lumora::tools
