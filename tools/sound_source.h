#pragma once

// Where the sound of takes comes from.

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <vector>

#include <lumora/helper.h>
#include "tools/programs.h"

namespace lumora::tools {

inline constexpr client::SoundFormat soundFormat{.rate = 48000, .channels = 2};
// The most sound that goes to a helper at once. The client library refuses sound if more than two
// seconds of it would wait for the helper.
inline constexpr client::Seconds longestSound(1.5);

// Generates sound at exactly `soundFormat.rate` samples per second of uptime. A real device is a
// little faster or slower.
class SteadySound {
 public:
  using Sample = std::function<double(std::int64_t number)>;  // full scale is 32767
  // Passes the helper the sound since the last call. All channels are equal. Passes none in the
  // first call, or if the last call was more than `longestSound` ago.
  void write(client::Helper& helper, client::Uptime::time_point now, const Sample& sample);

 private:
  client::Uptime::time_point next_;  // when the next sample is captured
  std::int64_t written_ = 0;         // samples
};

// The sound of a test card: a beep of 1 kHz. It begins when a picture with a flash is captured, and
// ends at the next picture without a flash. So sound and picture are in step even if pictures come
// irregularly.
class Beeps {
 public:
  // A picture is captured now. Passes the helper the sound since the last picture.
  void write(client::Helper& helper, client::Uptime::time_point now, bool flashes);

 private:
  SteadySound sound_;
  bool isLoud_ = false;  // since the last picture
};

// A sound device that ffmpeg captures.
class Microphone {
 public:
  // `device` is "FORMAT:NAME" in ffmpeg's words, such as "alsa:default". Throws what the
  // constructor of CommandPipe throws.
  explicit Microphone(const std::string& device);
  // Waits for samples and returns them. The last sample came out of ffmpeg just before. If
  // more came than `longestSound`, the oldest are left out. Empty when the device has ended. Valid
  // until the next call.
  std::span<const std::int16_t> next();
  // Ends the capture. If another thread waits in `next`, that call returns.
  void stop() { pipe_.stop(); }

 private:
  CommandPipe pipe_;
  std::vector<std::int16_t> samples_;
};

}  // namespace lumora::tools
