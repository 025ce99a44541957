#pragma once

// Where the sound of takes comes from.

#include <cstdint>

#include <lumora/helper.h>

namespace lumora::tools {

inline constexpr client::SoundFormat soundFormat{.rate = 48000, .channels = 2};

// The sound of a test card: a beep of 1 kHz from the capture of a picture that flashes until that
// of the first one that does not. So both are in step, whenever pictures are captured.
class Beeps {
 public:
  // A picture is captured now. Passes the sound since the one before to the helper.
  void write(client::Helper& helper, client::Uptime::time_point now, bool flashes);

 private:
  client::Uptime::time_point next_;  // when the next sample is captured
  bool isLoud_ = false;              // since the last picture
  std::int64_t written_ = 0;         // samples
};

}  // namespace lumora::tools
