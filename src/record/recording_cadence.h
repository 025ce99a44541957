#pragma once

#include <optional>

namespace lumora {

// How a take reduces the camera's frames to its own frame rate.
enum class CadenceRule {
  // A frame is skipped if it comes before the next point of a fixed grid. A camera at the take's
  // own rate loses some 9 % of its frames, those that come early because of jitter.
  grid,
  // A frame is skipped if it comes more than a third of a frame interval before it is due. The
  // parent has to ask for this rule.
  steady,
};

// Applies the rule to one take. State queue only.
struct RecordingCadence {
  int targetFPS;
  CadenceRule rule = CadenceRule::grid;
  std::optional<double> nextDeadline = {};  // uptime at which the next frame is due

  // Whether the frame captured at this uptime belongs to the take. If so, advances the deadline.
  bool admit(double capturedAt);
};

}  // namespace lumora
