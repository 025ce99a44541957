#pragma once

#include <optional>

namespace lumora {

// How a take thins the camera's frames out to its frame rate.
enum class CadenceRule {
  // A frame counts from the grid's next point on. A camera at the take's own rate loses some 9 % of
  // its frames by it, those that come early by whatever jitter there is.
  grid,
  // A frame may come early by a third of an interval. On request.
  steady,
};

// The state of that for one take. State queue only.
struct RecordingCadence {
  int targetFPS;
  CadenceRule rule = CadenceRule::grid;
  std::optional<double> nextDeadline = {};  // uptime at which the next frame is due

  // Whether the frame captured at this uptime belongs to the take; advances the deadline if so.
  bool admit(double capturedAt);
};

}  // namespace lumora
