#pragma once

// Encoded samples as tests need them: NAL units of a given type, with parameter sets.

#include <memory>
#include <vector>

#include "platform/compression.h"

namespace lumora {

// One unit per header, each of `unitBytes` bytes that go on with 0x11 behind the header.
std::shared_ptr<const EncodedSample> makeSample(const std::vector<std::uint8_t>& nalHeaders,
                                                std::size_t unitBytes = 4);
std::shared_ptr<const EncodedSample> keySample(std::size_t unitBytes = 4);
std::shared_ptr<const EncodedSample> deltaSample(std::size_t unitBytes = 4);

}  // namespace lumora
