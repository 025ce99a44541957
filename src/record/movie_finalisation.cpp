// The end of a take: its last sample, its file, its final name.

#include "base/movie_names.h"
#include "base/text.h"
#include "encode/encoder_failure.h"
#include "record/movie_recorder.h"
#include "record/movie_timing.h"

namespace lumora {

void MovieRecorder::finish(double stop) {
  accepting = false;
  queue->async([self = shared_from_this(), stop] { self->finishJob(stop); });
}

void MovieRecorder::finishJob(double stop) {
  if (failed) return;
  try {
    if (!held) throw EncoderFailure::message("no camera frames were received for recording");
    const double end = movieEndTime(startedAt, origin, held->time, stop, profile.targetFPS);
    if (held->time < origin + end) write(*held, origin + end, shortestLastSample);
    held.reset();
    tell(TakeState::finishing, end, "", path);
    writer->finishWriting(movieUnits(end), [self = shared_from_this(), end] {
      self->queue->async([self, end] { self->movieEnded(end); });
    });
  } catch (const std::exception& reason) {
    fail(reasonOf(reason));
  }
}

// Tries one name after the other: a complete movie is never deleted because of its name.
void MovieRecorder::movieEnded(double end) {
  if (writer->status() != WriterStatus::completed) {
    return fail(writer->error().value_or("recording finalization failed"));
  }
  if (platform.files->move(staging, path)) return tell(TakeState::saved, end, "", path);
  const std::string recovery = recoveryPath(path, id);
  if (platform.files->move(staging, recovery)) {
    return tell(TakeState::saved, end,
                "Final filename was unavailable. Completed video saved at the recovery path shown.",
                recovery);
  }
  tell(TakeState::saved, end,
       "Final filename was unavailable. Completed video preserved at the staging path shown; "
       "rename it to .mp4.",
       staging);
}

void MovieRecorder::abort(const std::string& message) {
  accepting = false;
  queue->async([self = shared_from_this(), message] { self->fail(message); });
}

}  // namespace lumora
