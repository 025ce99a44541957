#include "tools/flv.h"

#include <algorithm>
#include <cmath>

#include "client/big_endian.h"

namespace lumora::tools {
namespace {

using client::appendBigEndian;
using Bytes = std::vector<std::uint8_t>;

constexpr std::uint8_t videoTag = 9;
constexpr std::uint8_t avc = 7;  // codec
constexpr std::uint32_t tagHeaderBytes = 11;
constexpr std::uint32_t videoHeaderBytes = 5;

}  // namespace

Bytes flvHeader() {
  constexpr std::uint8_t hasVideo = 1;
  return {'F', 'L', 'V', 1, hasVideo, 0, 0, 0, 9, 0, 0, 0, 0};
}

// The fields with their numbers of bytes; (0) marks a field that is 0:
// type: 1 | size of the next row: 3 | low bytes of time: 3 | high byte of time: 1 | stream (0): 3
// frame type and codec: 1 | packet type: 1 | composition time (0): 3 | payload
// size of the two rows above: 4
Bytes flvTag(const client::Packet& packet, std::uint32_t milliseconds) {
  const bool isConfiguration = packet.type == client::Packet::Type::configuration;
  const Bytes payload = isConfiguration
                            ? avcDecoderConfiguration(client::parseConfiguration(packet.payload))
                            : packet.payload;
  const auto size = static_cast<std::uint32_t>(payload.size()) + videoHeaderBytes;
  Bytes tag;
  tag.reserve(size + tagHeaderBytes + 4);
  appendBigEndian(tag, videoTag, 1);
  appendBigEndian(tag, size, 3);
  appendBigEndian(tag, milliseconds & 0xFFFFFF, 3);
  appendBigEndian(tag, milliseconds >> 24, 1);
  appendBigEndian(tag, 0, 3);
  const bool isKey = isConfiguration || packet.keyframe;
  appendBigEndian(tag, (isKey ? 1U : 2U) << 4 | avc, 1);
  appendBigEndian(tag, isConfiguration ? 0 : 1, 1);
  appendBigEndian(tag, 0, 3);
  tag.insert(tag.end(), payload.begin(), payload.end());
  appendBigEndian(tag, size + tagHeaderBytes, 4);
  return tag;
}

std::uint32_t FlvTimes::next(std::uint64_t frameID, client::Uptime::time_point arrivedAt) {
  using client::Seconds;
  const client::Uptime::time_point captured(Seconds(static_cast<double>(frameID) / 1e6));
  const bool isTime = fromIDs_.value_or(std::chrono::abs(arrivedAt - captured) <= Seconds(2));
  const auto time = isTime ? captured : arrivedAt;
  if (latest_ < 0) first_ = time;
  // When ids start again, only the arrivals tell how much time has passed since the last picture.
  // Only needed if `fromIDs_` is true. Otherwise a time is an arrival or within 2 s of it, so it
  // can't jump far back.
  if (fromIDs_.value_or(false) && time < time_)
    first_ = time - (arrivedAt - arrivedAt_) - std::chrono::milliseconds(latest_);
  time_ = time;
  arrivedAt_ = arrivedAt;
  latest_ = std::max(latest_ + 1, std::llround((time - first_).count() * 1000));
  return static_cast<std::uint32_t>(latest_);
}

}  // namespace lumora::tools
