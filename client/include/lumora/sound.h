#pragma once

namespace lumora::client {

// The sound of a run: 16-bit samples, those of both channels next to each other.
struct SoundFormat {
  int rate = 48000;  // per second and channel, 8,000 to 96,000
  int channels = 2;  // 1 or 2
};

}  // namespace lumora::client
