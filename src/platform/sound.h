#pragma once

// The sound of takes: an encoder turns the parent's PCM into the AAC-LC packets of a track.

#include <algorithm>
#include <array>
#include <functional>
#include <memory>
#include <span>
#include <vector>

#include "platform/sample.h"

namespace lumora {

constexpr int soundPacketSamples = 1024;  // of each channel, in every packet

// The track's samples per second: `sourceRate` if AAC-LC has that rate, else 48000.
constexpr int soundTrackRate(int sourceRate) {
  constexpr std::array rates = {8000,  11025, 12000, 16000, 22050, 24000,
                                32000, 44100, 48000, 64000, 88200, 96000};
  return std::ranges::find(rates, sourceRate) != rates.end() ? sourceRate : 48000;
}

struct SoundSettings {
  int sourceRate;        // samples per second
  int trackRate;         // samples per second
  int channels;          // 1 or 2
  std::int64_t bitRate;  // bits per second; lowered to what AAC allows at `trackRate`
};

using SoundPackets = std::vector<Bytes>;

// An open encoder. A status is 0 or an error code of the encoder's library. After any
// status but 0 the take fails, but the encoder may be called again. No function throws. One thread
// at a time.
class SoundEncoder {
 public:
  virtual ~SoundEncoder() = default;
  // What a decoder must know first: an AudioSpecificConfig (ISO/IEC 14496-3, 1.6.2.1).
  virtual ByteView configuration() const = 0;
  // How many samples a decoder outputs before the first sample of the sound.
  virtual int priming() const = 0;
  // Encodes interleaved samples of all channels, and appends the packets that are complete.
  // Makes these samples last longer by `compensation` ppm, give or take 1 ppm.
  virtual Status encode(std::span<const std::int16_t> samples, int compensation,
                        SoundPackets& packets) = 0;
  // Appends the rest of the packets. The last call.
  virtual Status flush(SoundPackets& packets) = 0;
  // The length of the sound encoded so far, in samples of the track. Priming does not count.
  virtual std::int64_t length() const = 0;
};

// Opens an encoder. Returns 0 or the library's own code. Never throws.
using OpenSound =
    std::function<Status(const SoundSettings& settings, std::unique_ptr<SoundEncoder>& encoder)>;

}  // namespace lumora
