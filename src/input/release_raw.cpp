// The end of a raw frame: what waited for it can begin. State queue.

#include "app/video_encoder.h"

namespace lumora {

void VideoEncoder::releaseRaw() {
  raw.release();
  if (recordingSession && (!movie || recordingSessionTake != takesStarted)) resetRecordingSession();
  finishMovieIfReady();
}

}  // namespace lumora
