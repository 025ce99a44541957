#pragma once

#include <chrono>
#include <cstdint>

#include <lumora/export.h>

namespace lumora::client {

// A length of time. Every duration of std::chrono converts to it, a plain number does not.
using Seconds = std::chrono::duration<double>;

// The helper's clock for frames and takes: CLOCK_MONOTONIC, which V4L2 uses, too. Times of other
// clocks do not convert to times of this clock. Any thread.
struct LUMORA_CLIENT_EXPORT Uptime {
  using duration = Seconds;
  using rep = duration::rep;
  using period = duration::period;
  using time_point = std::chrono::time_point<Uptime, duration>;
  static constexpr bool is_steady = true;
  static time_point now() noexcept;
};

// The id for a frame that was captured at this time: the microseconds of the uptime. Takes with
// sound need such ids, and viewers can tell from them how old a picture is. Otherwise any growing
// ids are allowed. A JavaScript number holds such an id exactly, up to 285 years of uptime.
LUMORA_CLIENT_EXPORT std::uint64_t frameID(Uptime::time_point capturedAt);

}  // namespace lumora::client
