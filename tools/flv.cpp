#include "tools/flv.h"

namespace lumora::tools {
namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::uint8_t videoTag = 9;
constexpr std::uint8_t avc = 7;  // codec
constexpr std::uint32_t tagHeaderBytes = 11;
constexpr std::uint32_t videoHeaderBytes = 5;

void number(Bytes& bytes, std::uint32_t value, int size) {
  for (int shift = 8 * (size - 1); shift >= 0; shift -= 8) {
    bytes.push_back(static_cast<std::uint8_t>(value >> shift));
  }
}

}  // namespace

Bytes flvHeader() {
  constexpr std::uint8_t hasVideo = 1;
  return {'F', 'L', 'V', 1, hasVideo, 0, 0, 0, 9, 0, 0, 0, 0};
}

// type 1 | size 3 | time 3 | its highest byte 1 | stream, 0: 3
// frame and codec 1 | kind 1 | time to show, 0: 3 | payload
// size of all of that 4
Bytes flvTag(const client::Packet& packet, std::uint32_t milliseconds) {
  const bool isConfiguration = packet.type == client::Packet::Type::configuration;
  const Bytes payload = isConfiguration
                            ? avcDecoderConfiguration(client::parseConfiguration(packet.payload))
                            : packet.payload;
  const auto size = static_cast<std::uint32_t>(payload.size()) + videoHeaderBytes;
  Bytes tag;
  tag.reserve(size + tagHeaderBytes + 4);
  number(tag, videoTag, 1);
  number(tag, size, 3);
  number(tag, milliseconds & 0xFFFFFF, 3);
  number(tag, milliseconds >> 24, 1);
  number(tag, 0, 3);
  const bool isKey = isConfiguration || packet.keyframe;
  number(tag, (isKey ? 1U : 2U) << 4 | avc, 1);
  number(tag, isConfiguration ? 0 : 1, 1);
  number(tag, 0, 3);
  tag.insert(tag.end(), payload.begin(), payload.end());
  number(tag, size + tagHeaderBytes, 4);
  return tag;
}

}  // namespace lumora::tools
