#include "record/current_take.h"

namespace lumora {

void CurrentTake::resetRecordingSession() {
  if (recording.recordingSession) {
    recording.recordingSession->completeFrames();
    recording.recordingSession->invalidate();
  }
  recording = {};
}

void CurrentTake::abandon(const std::shared_ptr<MovieRecorder>& failing,
                          const std::string& reason) {
  if (movie != failing) return;
  ++recordingEncoderFailures;
  abandonedFor = reason;
  abandoned = std::exchange(movie, nullptr);
  pendingMovieStop.reset();
  failing->abort(reason);
}

}  // namespace lumora
