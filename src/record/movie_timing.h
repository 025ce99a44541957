#pragma once

// Where the samples of a take lie on the movie's timeline. In whole units of the movie, so that no
// error adds up. Pure.

#include <optional>

#include "platform/movie_writer.h"

namespace lumora {

constexpr std::int64_t shortestSample = movieTimescale / 600;  // two close samples stay apart by it
constexpr std::int64_t shortestLastSample = 1;                 // the last one ends with the movie

// From seconds since the movie's zero.
std::int64_t movieUnits(double seconds);

// A sample that stands at `time` lasts until `next`, but no shorter than `shortest` and no longer
// than a table can say. The next sample stands where it ends: at its own time, later when it came
// too close, sooner after too long a pause.
MovieTiming lastUntil(std::int64_t time, std::int64_t next, std::int64_t shortest);

// When a movie ends, in seconds from its origin, all times uptime seconds. Without a start time
// the last frame lasts at least one interval; with one the movie spans exactly from start to stop.
double movieEndTime(std::optional<double> startedAt, double origin, double lastSample, double stop,
                    int targetFPS);

}  // namespace lumora
