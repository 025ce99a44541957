#pragma once

namespace lumora::client {

// The format of the sound that a helper gets: interleaved 16-bit samples.
struct SoundFormat {
  int rate = 48000;  // per second and channel, 8,000 to 96,000
  int channels = 2;  // 1 or 2
};

}  // namespace lumora::client
