#pragma once

// H.264 as FLV: a header, then a tag for each packet. FLV puts the length of each NAL unit before
// it, as the helper's packets do. Adobe Flash Video File Format, version 10.1, annex E. Pure.

#include <cstdint>
#include <optional>
#include <vector>

#include <lumora/packets.h>
#include <lumora/uptime.h>

namespace lumora::tools {

// The bytes before the first tag.
std::vector<std::uint8_t> flvHeader();

// The packet as a tag. The tag of a configuration packet holds an "avcC" record, see
// `avcDecoderConfiguration`. Throws std::runtime_error for a malformed configuration.
std::vector<std::uint8_t> flvTag(const client::Packet& packet, std::uint32_t milliseconds);

// The times of pictures, in milliseconds since the first. Each is above the one before, even if the
// helper or its parent starts again.
class FlvTimes {
 public:
  // `fromIDs` says what the time of a picture is. If true, it is the picture's id, in microseconds.
  // If false, it is the arrival. If nullopt, it is the id if that is within 2 s of the arrival,
  // else the arrival.
  explicit FlvTimes(std::optional<bool> fromIDs) : fromIDs_(fromIDs) {}
  std::uint32_t next(std::uint64_t frameID, client::Uptime::time_point arrivedAt);

 private:
  const std::optional<bool> fromIDs_;
  client::Uptime::time_point first_;      // the time that is 0 in the output
  client::Uptime::time_point time_;       // of the latest picture
  client::Uptime::time_point arrivedAt_;  // of the latest picture
  long long latest_ = -1;                 // the last result of `next`, milliseconds; -1: none
};

}  // namespace lumora::tools
