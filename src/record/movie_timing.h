#pragma once

// Where the samples of a take lie on the movie's timeline. Samples begin and end at whole movie
// units, so rounding errors don't add up. Pure.

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <optional>

#include "platform/movie_writer.h"

namespace lumora {

constexpr std::int64_t shortestSample = movieTimescale / 600;  // movie units, for all but the last
constexpr std::int64_t shortestLastSample = 1;

inline std::int64_t movieUnits(double seconds) { return std::llround(seconds * movieTimescale); }

// A sample at `time` lasts until `next`, but at least `shortest` and at most `longestSample`. The
// next sample begins where this one ends, even if that is not at `next`.
inline MovieTiming lastUntil(std::int64_t time, std::int64_t next, std::int64_t shortest) {
  return {time, std::clamp(next - time, shortest, longestSample)};
}

// When a frame was captured, in uptime seconds. The id counts as microseconds of uptime if it lies
// within the two seconds before `readAt`. Otherwise the time is `readAt`.
inline double frameTime(std::uint64_t id, double readAt) {
  constexpr double oldest = 2;  // seconds
  const double captured = static_cast<double>(id) * 1e-6;
  return captured >= readAt - oldest && captured <= readAt ? captured : readAt;
}

// When a movie ends, in seconds from `origin`. The times passed in are uptime seconds. With a start
// time the movie lasts from start to stop. Without one it lasts until the stop, but at least until
// the last frame has lasted one interval.
inline double movieEndTime(std::optional<double> startedAt, double origin, double lastSample,
                           double stop, int targetFPS) {
  constexpr double shortestMovie = 1.0 / movieTimescale;  // seconds
  if (startedAt) return std::max(stop - origin, shortestMovie);
  return std::max(lastSample - origin + 1.0 / targetFPS, stop - origin);
}

}  // namespace lumora
