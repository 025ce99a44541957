#pragma once

// The packets of the TCP stream, service to client (all integers big-endian):
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
// Type 2, frame; its payload is the encoded sample, NAL units behind 4-byte lengths. Pure.

#include <cstdint>

#include "platform/sample.h"

namespace lumora {

constexpr std::size_t packetHeaderBytes = 14;

enum class PacketType : std::uint8_t { configuration = 1, frame = 2 };

// The complete packet around `payload`, which keeps the limits of its type.
Bytes packet(PacketType type, std::uint64_t frameID, bool keyframe, ByteView payload);

// The configuration packet of a `width` × `height` preview, from the sample's parameter sets.
// Throws EncoderFailure.
Bytes makeConfiguration(const EncodedSample& sample, std::int64_t width, std::int64_t height);

// One encoded sample, ready for every peer. `configuration` is null unless it is a key frame.
struct FramePackets {
  bool keyframe = false;
  SharedBytes configuration;
  SharedBytes frame;
};

// Checks the sample and builds its packets. Throws EncoderFailure.
FramePackets prepareFrame(const EncodedSample& sample, std::uint64_t frameID, std::int64_t width,
                          std::int64_t height);

}  // namespace lumora
