// The end of a take: its last sample, its file, its final name.

#include <filesystem>
#include <utility>

#include "base/text.h"
#include "encode/encoder_failure.h"
#include "record/movie_recorder.h"
#include "record/movie_timing.h"

namespace lumora {
namespace {

// "/a/clip.mp4" and an id give "/a/clip.recovered-<id>.mp4".
std::string recoveryPath(const std::string& path, const std::string& id) {
  const std::filesystem::path wanted(path);
  return wanted.parent_path() / (wanted.stem().string() + ".recovered-" + id + ".mp4");
}

}  // namespace

void MovieRecorder::finish(double stop, std::function<void()> completion) {
  {
    const std::lock_guard hold(lock);
    accepting = false;
  }
  queue->async([self = shared_from_this(), stop, completion = std::move(completion)] {
    self->finishJob(stop, completion);
  });
}

void MovieRecorder::finishJob(double stop, const std::function<void()>& completion) {
  if (failed) return completion();
  try {
    if (!writer || !held || !origin) {
      throw EncoderFailure::message("no camera frames were received for recording");
    }
    const double end = movieEndTime(startedAt, *origin, held->time, stop, profile.targetFPS);
    if (held->time < *origin + end) {
      write(*held, *origin + end, shortestLastSample);
    }
    held.reset();
    tell(TakeState::finishing, end, "", path);
    finishWriting(end, completion);
  } catch (const std::exception& reason) {
    fail(reasonOf(reason));
    completion();
  }
}

void MovieRecorder::finishWriting(double end, const std::function<void()>& completion) {
  writer->finishWriting(movieUnits(end), [self = shared_from_this(), end, completion] {
    self->queue->async([self, end, completion] {
      self->movieEnded(end);
      completion();
    });
  });
}

void MovieRecorder::movieEnded(double end) {
  if (writer->status() == WriterStatus::completed) return saveCompletedMovie(end);
  fail(writer->error().value_or("recording finalization failed"));
}

// Whatever the names allow: a complete movie is never given up for its name.
void MovieRecorder::saveCompletedMovie(double duration) {
  if (platform.files->move(staging, path)) return tell(TakeState::saved, duration, "", path);
  const std::string recovery = recoveryPath(path, id);
  if (platform.files->move(staging, recovery)) {
    return tell(TakeState::saved, duration,
                "Final filename was unavailable. Completed video saved at the recovery path shown.",
                recovery);
  }
  tell(TakeState::saved, duration,
       "Final filename was unavailable. Completed video preserved at the staging path shown; "
       "rename it to .mp4.",
       staging);
}

void MovieRecorder::abort(const std::string& message) {
  {
    const std::lock_guard hold(lock);
    accepting = false;
  }
  queue->async([self = shared_from_this(), message] { self->fail(message); });
}

}  // namespace lumora
