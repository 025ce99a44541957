#pragma once

// The packets of the TCP stream, service to client. Pure. All integers are big-endian:
//
//   0        4      5            13    14
//   +--------+------+------------+-----+---------
//   | length | type | frame id   | key | payload        length = 10 + payload bytes
//   +--------+------+------------+-----+---------
//
// Type 1, configuration (frame id 0, key 0); its payload:
//
//   0       2        4            6            8
//   +-------+--------+------------+------------+-----+-----+
//   | width | height | SPS length | PPS length | SPS | PPS |
//   +-------+--------+------------+------------+-----+-----+
//
// Type 2, frame (key 1 for a key frame, else 0); its payload is the encoded sample: NAL units, each
// after its 4-byte length.

#include <cstdint>

#include "platform/sample.h"

namespace lumora {

constexpr std::size_t packetHeaderBytes = 14;

// The packets of one encoded sample, ready for every peer.
struct FramePackets {
  bool keyframe = false;
  SharedBytes configuration;  // null unless it is a key frame
  SharedBytes frame;
};

// Checks the sample of a `width` × `height` preview and builds its packets. Throws EncoderFailure.
FramePackets prepareFrame(const EncodedSample& sample, std::uint64_t frameID, std::int64_t width,
                          std::int64_t height);

}  // namespace lumora
