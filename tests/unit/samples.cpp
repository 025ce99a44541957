#include "tests/unit/samples.h"

#include "h264/annex_b.h"
#include "h264/memory_sample.h"

namespace lumora {

std::shared_ptr<const EncodedSample> makeSample(const std::vector<std::uint8_t>& nalHeaders,
                                                std::size_t unitBytes) {
  Bytes data;
  for (const std::uint8_t header : nalHeaders) {
    Bytes unit(unitBytes, 0x11);
    unit[0] = header;
    appendLengthPrefixed(data, unit);
  }
  const auto format = std::make_shared<MemoryFormatDescription>(
      Bytes{0x67, 0x64, 0x00, 0x1F, 0xAC}, Bytes{0x68, 0xEE, 0x3C, 0x80}, 320, 240,
      ColourDescription{1, 13, 6, false});
  return std::make_shared<MemorySample>(data, format);
}

std::shared_ptr<const EncodedSample> keySample(std::size_t unitBytes) {
  return makeSample({0x65}, unitBytes);
}
std::shared_ptr<const EncodedSample> deltaSample(std::size_t unitBytes) {
  return makeSample({0x41}, unitBytes);
}

}  // namespace lumora
