#pragma once

// What a "record_start" may ask for besides its path, its profile and its start time. Pure.

#include <cstdint>
#include <optional>

#include "base/json.h"
#include "encode/session_settings.h"
#include "record/recording_cadence.h"
#include "sound/sound_format.h"

namespace lumora {

struct TakeOptions {
  CadenceRule cadence = CadenceRule::grid;
  std::int64_t bitRate = recordingBitRate;  // bits per second
  int rotation = 0;                         // clockwise degrees: 0, 90, 180 or 270
  bool keepsFailed = false;                 // a take that fails keeps its file
  // The take is stopped when its file system has fewer free bytes than this.
  std::optional<std::int64_t> minimumFree = {};
  bool frameLog = false;                  // a file beside the movie says what became of each frame
  std::optional<SoundFormat> sound = {};  // format of the parent's sound; empty: no sound
  std::int64_t soundBitRate = 128'000;    // bits per second

  // `ofParent` is the format of this run's sound, if it has any. An unknown cadence counts as the
  // grid. Throws EncoderFailure for any other invalid value, and for sound if this run has none.
  static TakeOptions parse(const Json& command, const std::optional<SoundFormat>& ofParent = {});

  bool operator==(const TakeOptions&) const = default;
};

}  // namespace lumora
