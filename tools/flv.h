#pragma once

// H.264 as FLV. Like the helper's packets, FLV has NAL units after their lengths. Adobe Flash Video
// File Format, version 10.1, annex E. Pure.

#include <cstdint>
#include <optional>
#include <vector>

#include <lumora/packets.h>

namespace lumora::tools {

// The bytes before the first tag.
std::vector<std::uint8_t> flvHeader();

// The packet as a tag. A configuration becomes the decoder's configuration record. Throws
// std::runtime_error if it is malformed.
std::vector<std::uint8_t> flvTag(const client::Packet& packet, std::uint32_t milliseconds);

// The times of pictures, in milliseconds since the first. Each is above the one before, even if the
// helper or its parent starts again.
class FlvTimes {
 public:
  // Whether times come from ids or from arrivals; empty: from an id that is at most 2 s off.
  explicit FlvTimes(std::optional<bool> fromIDs) : fromIDs_(fromIDs) {}
  // `arrivedAt` is an uptime in seconds.
  std::uint32_t next(std::uint64_t frameID, double arrivedAt);

 private:
  const std::optional<bool> fromIDs_;
  double first_ = 0;       // the time that is 0 in the output
  double time_ = 0;        // of the latest picture
  double arrivedAt_ = 0;   // of the latest picture
  long long latest_ = -1;  // milliseconds
};

}  // namespace lumora::tools
