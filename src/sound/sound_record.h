#pragma once

// Records of sound: which of them are valid, and which are dropped. Pure.

#include <cstdint>
#include <deque>

#include "base/bytes.h"
#include "sound/sound_format.h"

namespace lumora {

struct SoundRecord {
  double capturedAt = 0;  // uptime of the first sample in seconds; `DeviceClock` smooths it
  std::int64_t samples = 0;
  Bytes pcm = {};
  double readAt = 0;  // uptime
  double drift = 0;   // of the device, set by `DeviceClock`: 1e-6 is 1 ppm slow
};

// A record is valid if its id is above `lastID` and it has whole samples: at least one, at most a
// quarter of a second. `lastID` is the id of the sound record before it, or 0 for the first.
bool isValidSound(std::uint64_t id, std::uint64_t lastID, std::uint32_t bytes, SoundFormat format);

// Whether sound captured at this time is used: neither too old nor too far ahead. Uptime seconds.
bool isTimely(double capturedAt, double now);

// Drops the first records until the rest spans at most `seconds`, both by its times and by its
// number of samples. Times alone are not enough, because they go back when a clock jumps back.
void keepLatest(std::deque<SoundRecord>& records, double seconds, int rate);

}  // namespace lumora
