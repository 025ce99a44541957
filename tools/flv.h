#pragma once

// H.264 as FLV, which carries it as the helper's packets have it: NAL units behind their lengths.
// Adobe Flash Video File Format, version 10.1, annex E. Pure.

#include <cstdint>
#include <vector>

#include <lumora/packets.h>

namespace lumora::tools {

// What stands before the first tag.
std::vector<std::uint8_t> flvHeader();

// The packet as a tag. For a configuration that is the decoder's configuration record. Throws
// std::runtime_error on a malformed one.
std::vector<std::uint8_t> flvTag(const client::Packet& packet, std::uint32_t milliseconds);

}  // namespace lumora::tools
