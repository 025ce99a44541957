#include "record/recording_cadence.h"

#include <algorithm>
#include <cmath>

namespace lumora {
namespace {

constexpr double gridTolerance = 0.000001;  // seconds

// The deadline after this frame. Empty when the frame came too early for `deadline`.
std::optional<double> nextOnGrid(double capturedAt, double deadline, double interval) {
  if (capturedAt + gridTolerance < deadline) return std::nullopt;
  // The deadline moves by whole intervals, so the camera's jitter does not add up.
  const double passed = std::floor((capturedAt - deadline + gridTolerance) / interval) + 1;
  return deadline + std::max(1.0, passed) * interval;
}

// The same for `CadenceRule::steady`.
std::optional<double> nextSteady(double capturedAt, double deadline, double interval) {
  if (capturedAt < deadline - interval / 3) return std::nullopt;
  // After a pause the deadlines start again from this frame, so that no burst is admitted.
  return (capturedAt <= deadline + interval ? deadline : capturedAt) + interval;
}

}  // namespace

bool RecordingCadence::admit(double capturedAt) {
  if (!std::isfinite(capturedAt) || capturedAt < 0) return false;
  const double interval = 1.0 / targetFPS;
  if (!nextDeadline) {
    nextDeadline = capturedAt + interval;
    return true;
  }
  const auto next = rule == CadenceRule::steady ? nextSteady(capturedAt, *nextDeadline, interval)
                                                : nextOnGrid(capturedAt, *nextDeadline, interval);
  if (next) nextDeadline = next;
  return next.has_value();
}

}  // namespace lumora
