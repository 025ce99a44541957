#pragma once

// The format of the parent's sound. TAVO_SOUND sets it for the whole run. Pure.

#include <cstdint>
#include <optional>
#include <string>

namespace lumora {

// Interleaved 16-bit values. A sample has one value for each channel.
struct SoundFormat {
  int rate = 0;  // samples a second
  int channels = 0;

  int sampleBytes() const { return channels * static_cast<int>(sizeof(std::int16_t)); }
  bool operator==(const SoundFormat&) const = default;
};

// The format that "RATExCHANNELS" describes, for example "48000x2". Empty for any other text, and
// for rates and channels that the helper does not take.
std::optional<SoundFormat> parseSoundFormat(const std::string& text);

}  // namespace lumora
