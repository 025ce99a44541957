#pragma once

// Encoded samples for tests. The test chooses the headers of their NAL units. Each sample has a
// format description with parameter sets.

#include "h264/memory_sample.h"
#include "h264/nal_units.h"

namespace lumora {

// A sample with one unit per header. Each unit has `unitBytes` bytes: a header, then bytes of 0x11.
inline std::shared_ptr<const EncodedSample> makeSample(const std::vector<std::uint8_t>& headers,
                                                       std::size_t unitBytes = 4) {
  Bytes data;
  for (const std::uint8_t header : headers) {
    Bytes unit(unitBytes, 0x11);
    unit[0] = header;
    appendLengthPrefixed(data, unit);
  }
  const auto format = std::make_shared<MemoryFormatDescription>(
      Bytes{0x67, 0x64, 0x00, 0x1F, 0xAC}, Bytes{0x68, 0xEE, 0x3C, 0x80}, 320, 240,
      ColourDescription{1, 13, 1, false});
  return std::make_shared<MemorySample>(data, format);
}

inline auto keySample(std::size_t unitBytes = 4) { return makeSample({0x65}, unitBytes); }
inline auto deltaSample(std::size_t unitBytes = 4) { return makeSample({0x41}, unitBytes); }

}  // namespace lumora
