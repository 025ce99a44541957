#pragma once

#include <optional>

namespace lumora {

// Thins the camera's frames out to a take's frame rate. State queue only.
struct RecordingCadence {
  int targetFPS;
  std::optional<double> nextDeadline;  // uptime before which the next frame is skipped

  // Whether the frame captured at this uptime belongs to the take; advances the deadline if so.
  bool admit(double capturedAt);
};

}  // namespace lumora
