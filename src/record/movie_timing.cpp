#include "record/movie_timing.h"

#include <algorithm>
#include <cmath>

namespace lumora {

std::int64_t movieUnits(double seconds) { return std::llround(seconds * movieTimescale); }

MovieTiming lastUntil(std::int64_t time, std::int64_t next, std::int64_t shortest) {
  return {time, std::clamp(next - time, shortest, longestSample)};
}

double movieEndTime(std::optional<double> startedAt, double origin, double lastSample, double stop,
                    int targetFPS) {
  constexpr double shortestMovie = 1.0 / movieTimescale;  // seconds
  if (startedAt) return std::max(stop - origin, shortestMovie);
  return std::max(lastSample - origin + 1.0 / targetFPS, stop - origin);
}

}  // namespace lumora
