#pragma once

// Options per encoder for what this service needs: no delay, no B-frames, key frames on demand.

#include <string>
#include <utility>
#include <vector>

#include "platform/libav_encoder.h"

namespace lumora {

using CodecOptions = std::vector<std::pair<std::string, std::string>>;

CodecOptions lowLatencyOptions(const std::string& codec, const EncoderSettings& settings);

// Slice threads for a software encoder at this size.
int sliceThreads(const EncoderSettings& settings, unsigned cores);

}  // namespace lumora
