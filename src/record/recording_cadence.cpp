#include "record/recording_cadence.h"

#include <algorithm>
#include <cmath>

namespace lumora {
namespace {

constexpr double tolerance = 0.000001;  // seconds

}  // namespace

bool RecordingCadence::admit(double capturedAt) {
  if (!std::isfinite(capturedAt) || capturedAt < 0) return false;
  const double interval = 1.0 / targetFPS;
  if (!nextDeadline) {
    nextDeadline = capturedAt + interval;
    return true;
  }
  if (capturedAt + tolerance < *nextDeadline) return false;
  // Whole intervals, so that jitter of the camera does not add up.
  const double passed = std::floor((capturedAt - *nextDeadline + tolerance) / interval) + 1;
  *nextDeadline += std::max(1.0, passed) * interval;
  return true;
}

}  // namespace lumora
